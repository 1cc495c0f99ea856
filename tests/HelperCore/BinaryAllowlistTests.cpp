#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HelperCore/BinaryAllowlist.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

namespace fs = std::filesystem;

constexpr uid_t self = 1000;

FileFacts file(uid_t owner, mode_t permissions) {
  return {true, true, owner, static_cast<std::uint16_t>(S_IFREG | permissions)};
}

TEST(BinaryAllowlist, ListsTheSearchLocationsInOrder) {
  const std::pair<fs::path, std::string> rows[] = {
      {"/home/u", "/home/u"}, {"/home/u//", "/home/u"}, {"/", ""}, {"//", ""}};
  for (const auto& [home, prefix] : rows) {
    const std::vector<fs::path> expected{prefix + "/.local/bin",
                                         prefix + "/.claude/local",
                                         "/opt/homebrew/bin",
                                         "/usr/local/bin",
                                         "/usr/bin",
                                         "/bin",
                                         prefix + "/.bun/bin",
                                         prefix + "/.npm-global/bin",
                                         prefix + "/.cargo/bin"};
    EXPECT_EQ(BinaryAllowlist::searchLocations(home), expected) << home;
  }
}

TEST(BinaryAllowlist, AcceptsTheFirstAcceptableCandidate) {
  struct Case {
    const char* name;
    std::map<fs::path, FileFacts> candidates;
    std::expected<fs::path, BinaryRejection> expected;
  };
  const auto refused = [](const BinaryRejection& rejection) { return std::unexpected(rejection); };
  const FileFacts directory{false, true, self, S_IFDIR | 0755};
  const FileFacts plain{true, false, self, S_IFREG | 0644};
  const std::vector<Case> cases{
      {"nothing", {}, refused(Rejection::NotFound{})},
      {"own", {{"/b/x", file(self, 0755)}}, "/b/x"},
      {"root's", {{"/b/x", file(0, 04755)}}, "/b/x"},
      {"first of two", {{"/a/x", file(0, 0755)}, {"/b/x", file(self, 0755)}}, "/a/x"},
      {"directory", {{"/a/x", directory}}, refused(Rejection::NotRegularFile{})},
      {"not executable", {{"/a/x", plain}}, refused(Rejection::NotExecutable{})},
      {"foreign", {{"/c/x", file(1001, 0777)}}, refused(Rejection::WrongOwner{1001})},
      {"group may write",
       {{"/a/x", file(self, 0775)}},
       refused(Rejection::WritableByGroupOrOther{0100775})},
      {"others may write root's",
       {{"/a/x", file(0, 0757)}},
       refused(Rejection::WritableByGroupOrOther{0100757})},
      {"a later one", {{"/a/x", file(1001, 0755)}, {"/c/x", file(self, 0700)}}, "/c/x"},
      {"the last refusal",
       {{"/a/x", file(1001, 0755)}, {"/b/x", directory}},
       refused(Rejection::NotRegularFile{})}};
  for (const Case& row : cases) {
    const FactsReader reader = [&row](const fs::path& path) -> std::optional<FileFacts> {
      const auto found = row.candidates.find(path);
      return found == row.candidates.end() ? std::nullopt : std::optional(found->second);
    };
    const auto resolved = BinaryAllowlist::resolve("x", {"/a", "/b", "/c"}, self, reader);
    EXPECT_TRUE(resolved == row.expected) << row.name;
  }
}

TEST(BinaryAllowlist, ExplainsEveryRejection) {
  const std::pair<BinaryRejection, std::string> rows[] = {
      {Rejection::WrongOwner{5}, "was found but is owned by another user, so it wasn’t run."},
      {Rejection::WritableByGroupOrOther{0},
       "was found but is writable by other users, so it wasn’t run."},
      {Rejection::NotRegularFile{}, "was found but isn’t an executable file."},
      {Rejection::NotExecutable{}, "was found but isn’t an executable file."},
      {Rejection::NotFound{}, "wasn’t found in any of the usual install locations."}};
  for (const auto& [rejection, text] : rows)
    EXPECT_EQ(BinaryAllowlist::message(rejection, "codex"), "codex " + text);
}

// What becomes of a refused one, the client's tests show with a real service.
TEST(BinaryAllowlist, JudgesWhatALinkLeadsTo) {
  const TemporaryDirectory directory;
  const fs::path& home = directory.path();
  const fs::path bin = home / ".local/bin";
  const auto create = [](const fs::path& path, mode_t mode) {
    std::ofstream{path};
    fs::permissions(path, fs::perms(mode));
  };
  fs::create_directories(bin);
  create(home / "store", 04755);
  create(home / "plain", 0644);
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
