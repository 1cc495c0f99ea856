#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HelperCore/BinaryAllowlist.h"
#include "HelperCore/CurrentUser.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

namespace fs = std::filesystem;

constexpr uid_t self = 1000;

FileFacts file(uid_t owner, mode_t permissions) {
  return {true, true, owner, static_cast<std::uint16_t>(S_IFREG | permissions)};
}

TEST(BinaryAllowlist, AcceptsTheFirstAcceptableCandidate) {
  struct Case {
    const char* name;
    std::map<fs::path, FileFacts> candidates;
    std::string expected;  ///< The path of what is accepted, or the last refusal.
  };
  const std::string otherOwner = "x was found but is owned by another user, so it wasn’t run.";
  const std::string writable = "x was found but is writable by other users, so it wasn’t run.";
  const std::string noProgram = "x was found but isn’t an executable file.";
  const FileFacts directory{false, true, self, S_IFDIR | 0755};
  const std::vector<Case> cases{
      {"nothing", {}, "x wasn’t found in any of the usual install locations."},
      {"root's", {{"/b/x", file(0, 04755)}}, "/b/x"},
      {"first of two", {{"/a/x", file(0, 0755)}, {"/b/x", file(self, 0755)}}, "/a/x"},
      {"not executable", {{"/a/x", {true, false, self, S_IFREG | 0644}}}, noProgram},
      {"foreign", {{"/c/x", file(1001, 0777)}}, otherOwner},
      {"group may write", {{"/a/x", file(self, 0775)}}, writable},
      {"others may write root's", {{"/a/x", file(0, 0757)}}, writable},
      {"a later one", {{"/a/x", file(1001, 0755)}, {"/c/x", file(self, 0700)}}, "/c/x"},
      {"the last refusal", {{"/a/x", file(1001, 0755)}, {"/b/x", directory}}, noProgram}};
  for (const Case& row : cases) {
    const FactsReader reader = [&row](const fs::path& path) -> std::optional<FileFacts> {
      const auto found = row.candidates.find(path);
      return found == row.candidates.end() ? std::nullopt : std::optional(found->second);
    };
    const auto resolved = BinaryAllowlist::resolve("x", {"/a", "/b", "/c"}, self, reader);
    EXPECT_EQ(resolved ? resolved->string() : BinaryAllowlist::message(resolved.error(), "x"),
              row.expected)
        << row.name;
  }
}

// What becomes of a refused one, the client's tests show with a real service.
TEST(BinaryAllowlist, JudgesWhatALinkLeadsTo) {
  const TemporaryDirectory directory;
  const fs::path& home = directory.path();
  const fs::path bin = home / ".local/bin";
  fs::create_directories(bin);
  for (const auto& [name, mode] : {std::pair{"store", 04755U}, {"plain", 0644U}}) {
    std::ofstream{home / name};
    fs::permissions(home / name, fs::perms(mode));
  }
  fs::create_symlink("../../store", bin / "codex");
  fs::create_symlink("nowhere", bin / "dangling");
  fs::create_symlink("loop", bin / "loop");

  EXPECT_EQ(BinaryAllowlist::readFacts(bin / "codex"), file(::getuid(), 04755));
  EXPECT_FALSE(BinaryAllowlist::readFacts(bin)->isRegularFile);
  EXPECT_FALSE(BinaryAllowlist::readFacts(home / "plain")->isExecutable);
  for (const char* path : {".local/bin/dangling", ".local/bin/loop", "store/below"})
    EXPECT_EQ(BinaryAllowlist::readFacts(home / path), std::nullopt) << path;
  // The path as formed, so that the launch follows the link again.
  EXPECT_EQ(resolveEngine(GenerationEngineID::codex, CurrentUser{home, "u"}), bin / "codex");
}

}  // namespace
}  // namespace tessaloom
