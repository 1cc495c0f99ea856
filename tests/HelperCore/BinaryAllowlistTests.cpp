#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HelperCore/BinaryAllowlist.h"
#include "HelperCore/FileDescriptor.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

namespace fs = std::filesystem;

constexpr uid_t self = 1000;

FileFacts file(uid_t owner, mode_t permissions) {
  return {.isRegularFile = true,
          .isExecutable = true,
          .ownerUID = owner,
          .mode = static_cast<std::uint16_t>(S_IFREG | permissions)};
}

const FileFacts directory{
    .isRegularFile = false, .isExecutable = true, .ownerUID = self, .mode = S_IFDIR | 0755};
const FileFacts plain{
    .isRegularFile = true, .isExecutable = false, .ownerUID = self, .mode = S_IFREG | 0644};

TEST(BinaryAllowlist, ListsTheSearchLocationsInOrder) {
  struct Case {
    const char *home, *prefix;
  };
  for (const auto& [home, prefix] : {Case{"/home/u", "/home/u"}, Case{"/home/u/", "/home/u"},
                                     Case{"/home/u//", "/home/u"}, Case{"/", ""}, Case{"//", ""}}) {
    const std::string base = prefix;
    const std::vector<fs::path> expected{base + "/.local/bin", base + "/.claude/local",
                                         "/opt/homebrew/bin",  "/usr/local/bin",
                                         "/usr/bin",           "/bin",
                                         base + "/.bun/bin",   base + "/.npm-global/bin",
                                         base + "/.cargo/bin"};
    EXPECT_EQ(BinaryAllowlist::searchLocations(home), expected) << home;
  }
}

TEST(BinaryAllowlist, AcceptsTheFirstAcceptableCandidate) {
  struct Case {
    const char* name;
    std::map<std::string, FileFacts> files;
    std::expected<fs::path, BinaryRejection> expected;
  };
  const auto rejected = [](const BinaryRejection& rejection) { return std::unexpected(rejection); };
  const std::vector<Case> cases{
      {"nothing", {}, rejected(Rejection::NotFound{})},
      {"own", {{"/b/claude", file(self, 0755)}}, "/b/claude"},
      {"root's", {{"/b/claude", file(0, 04755)}}, "/b/claude"},
      {"first of two",
       {{"/a/claude", file(0, 0755)}, {"/b/claude", file(self, 0755)}},
       "/a/claude"},
      {"directory", {{"/a/claude", directory}}, rejected(Rejection::NotRegularFile{})},
      {"not executable", {{"/a/claude", plain}}, rejected(Rejection::NotExecutable{})},
      {"foreign", {{"/c/claude", file(1001, 0755)}}, rejected(Rejection::WrongOwner{1001})},
      {"foreign and writable",
       {{"/c/claude", file(1001, 0777)}},
       rejected(Rejection::WrongOwner{1001})},
      {"group-writable",
       {{"/a/claude", file(self, 0775)}},
       rejected(Rejection::WritableByGroupOrOther{0100775})},
      {"root's, writable by others",
       {{"/a/claude", file(0, 0757)}},
       rejected(Rejection::WritableByGroupOrOther{0100757})},
      {"a later acceptable one",
       {{"/a/claude", file(1001, 0755)}, {"/c/claude", file(self, 0700)}},
       "/c/claude"},
      {"the last refusal",
       {{"/a/claude", file(1001, 0755)}, {"/b/claude", directory}},
       rejected(Rejection::NotRegularFile{})}};
  for (const Case& row : cases) {
    const FactsReader reader = [&row](const fs::path& path) -> std::optional<FileFacts> {
      const auto found = row.files.find(path.string());
      return found == row.files.end() ? std::nullopt : std::optional(found->second);
    };
    EXPECT_TRUE(BinaryAllowlist::resolve("claude", {"/a", "/b", "/c"}, self, reader) ==
                row.expected)
        << row.name;
  }
}

TEST(BinaryAllowlist, ExplainsEveryRejection) {
  const auto message = [](const BinaryRejection& rejection) {
    return BinaryAllowlist::message(rejection, "codex");
  };
  EXPECT_EQ(message(Rejection::WrongOwner{5}),
            "codex was found but is owned by another user, so it wasn’t run.");
  EXPECT_EQ(message(Rejection::WritableByGroupOrOther{0}),
            "codex was found but is writable by other users, so it wasn’t run.");
  EXPECT_EQ(message(Rejection::NotRegularFile{}), "codex was found but isn’t an executable file.");
  EXPECT_EQ(message(Rejection::NotExecutable{}), "codex was found but isn’t an executable file.");
  EXPECT_EQ(message(Rejection::NotFound{}),
            "codex wasn’t found in any of the usual install locations.");
}

/// A home directory with an empty .local/bin.
class RealFiles : public testing::Test {
 protected:
  RealFiles() : home_(directory_.path()), bin_(home_ / ".local/bin") {
    fs::create_directories(bin_);
  }

  static fs::path create(const fs::path& path, mode_t mode) {
    const FileDescriptor fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_TRUE(fd);
    EXPECT_EQ(::fchmod(fd.get(), mode), 0);
    return path;
  }

  const TemporaryDirectory directory_;
  const fs::path home_, bin_;
};

TEST_F(RealFiles, AreJudgedByWhatTheLinkLeadsTo) {
  const fs::path target = create(home_ / "store", 04775);
  fs::create_symlink("../../store", bin_ / "codex");
  const auto facts = BinaryAllowlist::readFacts(bin_ / "codex");
  EXPECT_EQ(facts, (FileFacts{.isRegularFile = true,
                              .isExecutable = true,
                              .ownerUID = ::getuid(),
                              .mode = S_IFREG | 04775}));

  fs::create_symlink("nowhere", bin_ / "dangling");
  fs::create_symlink("loop", bin_ / "loop");
  EXPECT_EQ(BinaryAllowlist::readFacts(bin_ / "dangling"), std::nullopt);
  EXPECT_EQ(BinaryAllowlist::readFacts(bin_ / "loop"), std::nullopt);
  EXPECT_EQ(BinaryAllowlist::readFacts(target / "below"), std::nullopt);
  EXPECT_FALSE(BinaryAllowlist::readFacts(bin_)->isRegularFile);
  EXPECT_FALSE(BinaryAllowlist::readFacts(create(bin_ / "plain", 0644))->isExecutable);
}

TEST_F(RealFiles, DecideAboutAnEngine) {
  const CurrentUser user{.homeDirectory = home_, .loginName = "u"};
  const fs::path store = create(home_ / "store", 0755);
  fs::create_symlink(store, bin_ / "codex");
  // The path as formed, so that the launch follows the link again.
  EXPECT_EQ(resolveEngine(GenerationEngineID::codex, user), bin_ / "codex");

  ::chmod(store.c_str(), 0775);
  const auto refused = resolveEngine(GenerationEngineID::codex, user);
  if (!refused) {  // A machine may have one of its own in a system directory.
    EXPECT_EQ(refused.error(),
              (GenerationErrorPayload{
                  .kind = GenerationFailureKind::binaryNotFound,
                  .engine = GenerationEngineID::codex,
                  .detail = "codex was found but is writable by other users, so it wasn’t run."}));
  }

  const auto unknown = resolveEngine(GenerationEngineID::claudeCode, std::nullopt);
  ASSERT_FALSE(unknown);
  EXPECT_EQ(unknown.error(),
            (GenerationErrorPayload{.kind = GenerationFailureKind::launchFailed,
                                    .engine = GenerationEngineID::claudeCode,
                                    .detail = "Could not determine the current user."}));
}

}  // namespace
}  // namespace tessaloom
