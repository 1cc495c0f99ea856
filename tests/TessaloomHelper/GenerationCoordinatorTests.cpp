#include <filesystem>
#include <optional>
#include <utility>

#include <gtest/gtest.h>

#include "TessaloomHelper/GenerationCoordinator.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

namespace fs = std::filesystem;

TEST(GenerationCoordinator, FailsWhenTheUserIsUnknownAtTheLaunch) {
  constexpr auto codex = GenerationEngineID::codex;
  const TemporaryDirectory home;
  const TemporaryDirectory temporary;
  fs::create_directories(home / ".local/bin");
  fs::copy_file(PRACTICE_ENGINE, home / ".local/bin/codex");
  CLIRunner runner;
  GenerationLookups lookups;
  const std::optional user(CurrentUser{home.path(), "practice"});

  lookups.currentUser = [&, isFirst = true]() mutable {
    return std::exchange(isFirst, false) ? user : std::nullopt;
  };
  GenerationCoordinator vanished(runner, temporary.path(), lookups);
  const auto outcome = vanished.generate(
      {UUID::random(), codex, GenerationShape::freeText, "", "text", GenerationTimeout(60)});
  ASSERT_FALSE(outcome);
  EXPECT_EQ(outcome.error(),
            GenerationErrorPayload::withDetail(GenerationFailureKind::launchFailed, codex,
                                               "Could not determine the current user."));
  EXPECT_TRUE(fs::is_empty(temporary.path()));
}

}  // namespace
}  // namespace tessaloom
