#include <signal.h>

#include <algorithm>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "TessaloomHelper/GenerationCoordinator.h"
#include "support/Repeated.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

namespace fs = std::filesystem;
using Kind = GenerationFailureKind;

constexpr auto codex = GenerationEngineID::codex;

/// A home directory in which the practice engine is installed; it checks by itself all that a
/// generation gives it.
class GenerationCoordinatorTest : public testing::Test {
 protected:
  GenerationCoordinatorTest() {
    ::signal(SIGPIPE, SIG_IGN);
    fs::create_directories(installed.parent_path());
    fs::copy_file(PRACTICE_ENGINE, installed);
    lookups.currentUser = [this] { return std::optional(user); };
  }
  ~GenerationCoordinatorTest() override { EXPECT_TRUE(fs::is_empty(temporary.path())); }

  GenerationCoordinator coordinator() { return {runner, temporary.path(), lookups}; }

  static GenerationRequest request(std::string prompt) {
    return {UUID::random(),       codex, GenerationShape::freeText, "Be brief.", std::move(prompt),
            GenerationTimeout(60)};
  }

  void expectFailure(Kind kind, const std::string& detail, const std::string& prompt = "text",
                     std::optional<std::int32_t> status = {}) {
    const auto outcome = coordinator().generate(request(prompt));
    ASSERT_FALSE(outcome);
    EXPECT_EQ(outcome.error(), (GenerationErrorPayload{kind, codex, status, detail}));
  }

  CLIRunner runner;
  TemporaryDirectory home;
  TemporaryDirectory temporary;
  const fs::path installed = home.path() / ".local/bin/codex";
  CurrentUser user{home.path(), "practice"};
  GenerationLookups lookups;
};

TEST_F(GenerationCoordinatorTest, DetailIsTheStartOfTheEndOfWhatTheEngineSaid) {
  std::string detail;
  for (int i = 8'000; i < 8'500; ++i) {
    detail += i % 26 == 4 ? "é" : std::string(1, static_cast<char>('a' + i % 26));
  }
  expectFailure(Kind::nonZeroExit, detail, "practice:long-stderr=10000 practice:exit=3", 3);
}

TEST_F(GenerationCoordinatorTest, CutsTheTextToItsLimit) {
  const auto outcome = coordinator().generate(request(repeated("e\u0301", 60'000)));
  ASSERT_TRUE(outcome);
  const auto isScalar = [](char byte) { return (byte & 0xC0) != 0x80; };
  EXPECT_EQ(std::ranges::count_if(outcome->text, isScalar), 100'000);
}

TEST_F(GenerationCoordinatorTest, FailsToLaunchWithoutWhatItNeeds) {
  const auto current = std::exchange(lookups.currentUser, [lookedUp = 0, this]() mutable {
    return ++lookedUp == 1 ? std::optional(user) : std::nullopt;
  });
  expectFailure(Kind::launchFailed, "Could not determine the current user.");
  lookups.currentUser = current;

  fs::permissions(temporary.path(), fs::perms::owner_all | fs::perms::others_read);
  expectFailure(Kind::launchFailed, "Permission denied");
  fs::permissions(temporary.path(), fs::perms::owner_all);

  fs::remove(installed);
  expectFailure(Kind::binaryNotFound, "codex wasn’t found in any of the usual install locations.");
}

TEST_F(GenerationCoordinatorTest, StatusReportsWhatTheProbePrints) {
  const auto version = [this](const char* words) {
    std::ofstream(home / ".practice-version") << words;
    const auto status = coordinator().engineStatus({codex});
    EXPECT_EQ(status, (EngineStatus{codex, true, std::nullopt, status.version}));
    return status.version;
  };
  EXPECT_EQ(version("practice:exit=1"), "codex-cli 0.169.0");
  EXPECT_EQ(version("practice:no-output practice:signal=6"), "");
  std::ofstream(installed) << "#!/nonexistent";
  EXPECT_EQ(version(""), std::nullopt);
}

TEST_F(GenerationCoordinatorTest, AsksForTheUserAgainOnceDescriptorsAreReleased) {
  bool released = false;
  lookups.releaseDescriptors = [&] { released = true; };
  lookups.currentUser = [&] { return released ? std::optional(user) : std::nullopt; };
  EXPECT_TRUE(coordinator().engineStatus({codex}).binaryFound);
}

}  // namespace
}  // namespace tessaloom
