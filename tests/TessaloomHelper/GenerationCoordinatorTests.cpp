#include <signal.h>

#include <string>

#include <gtest/gtest.h>

#include "TessaloomHelper/GenerationCoordinator.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

namespace fs = std::filesystem;

constexpr auto codex = GenerationEngineID::codex;

/// A home directory in which the practice engine is installed; it checks by itself all that a
/// generation gives it.
class GenerationCoordinatorTest : public testing::Test {
 protected:
  GenerationCoordinatorTest() {
    ::signal(SIGPIPE, SIG_IGN);
    fs::create_directories(home / ".local/bin");
    fs::copy_file(PRACTICE_ENGINE, home / ".local/bin/codex");
    lookups.currentUser = [this] { return std::optional(user); };
  }
  ~GenerationCoordinatorTest() override { EXPECT_TRUE(fs::is_empty(temporary.path())); }

  GenerationCoordinator coordinator() { return {runner, temporary.path(), lookups}; }

  void expectLaunchToFail(const std::string& detail) {
    const GenerationRequest request(UUID::random(), codex, GenerationShape::freeText, "", "text",
                                    GenerationTimeout(60));
    const auto outcome = coordinator().generate(request);
    ASSERT_FALSE(outcome);
    EXPECT_EQ(outcome.error(), (GenerationErrorPayload{GenerationFailureKind::launchFailed, codex,
                                                       std::nullopt, detail}));
  }

  CLIRunner runner;
  TemporaryDirectory home;
  TemporaryDirectory temporary;
  CurrentUser user{home.path(), "practice"};
  GenerationLookups lookups;
};

TEST_F(GenerationCoordinatorTest, FailsToLaunchWithoutWhatItNeeds) {
  const auto current = std::exchange(lookups.currentUser, [lookedUp = 0, this]() mutable {
    return ++lookedUp == 1 ? std::optional(user) : std::nullopt;
  });
  expectLaunchToFail("Could not determine the current user.");
  lookups.currentUser = current;
}

TEST_F(GenerationCoordinatorTest, AsksForTheUserAgainOnceDescriptorsAreReleased) {
  bool released = false;
  lookups.releaseDescriptors = [&] { released = true; };
  lookups.currentUser = [&] { return released ? std::optional(user) : std::nullopt; };
  EXPECT_TRUE(coordinator().engineStatus({codex}).binaryFound);
}

}  // namespace
}  // namespace tessaloom
