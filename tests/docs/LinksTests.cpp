// Links between the documents lead to files that exist.

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

namespace tessaloom {
namespace {

namespace fs = std::filesystem;

std::size_t checkLinks(const fs::path& document) {
  static const std::regex link(R"(\]\(([^)#:\s]+)(#[^)]*)?\))");
  std::ifstream file(document);
  std::size_t count = 0;
  for (std::string line; std::getline(file, line);) {
    for (std::sregex_iterator match(line.begin(), line.end(), link), end; match != end; ++match) {
      ++count;
      EXPECT_TRUE(fs::exists(document.parent_path() / (*match)[1].str()))
          << document << ": " << (*match)[1];
    }
  }
  return count;
}

TEST(Documents, LinksLeadToFiles) {
  const fs::path docs(TESSALOOM_DOCS);
  std::size_t count = 0;
  for (const fs::path& folder : {docs.parent_path(), docs, docs / "decisions"}) {
    for (const auto& entry : fs::directory_iterator(folder)) {
      if (entry.path().extension() == ".md") count += checkLinks(entry.path());
    }
  }
  EXPECT_GE(count, 20U);
}

TEST(Documents, TheIndexHasEveryDecision) {
  const fs::path decisions = fs::path(TESSALOOM_DOCS) / "decisions";
  std::ifstream file(decisions / "README.md");
  std::ostringstream index;
  index << file.rdbuf();
  for (const auto& entry : fs::directory_iterator(decisions)) {
    const std::string name = entry.path().filename().string();
    EXPECT_TRUE(name == "README.md" || index.str().contains("](" + name + ")")) << name;
  }
}

}  // namespace
}  // namespace tessaloom
