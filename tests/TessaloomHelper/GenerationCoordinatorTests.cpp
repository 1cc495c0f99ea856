#include <signal.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TessaloomHelper/GenerationCoordinator.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

namespace fs = std::filesystem;
using Engine = GenerationEngineID;
using Shape = GenerationShape;
using Kind = GenerationFailureKind;
using Outcome = std::expected<GenerationResult, GenerationErrorPayload>;

/// A home directory in which the practice engine is installed under both names; it checks by itself
/// all that a generation gives it.
class GenerationCoordinatorTest : public testing::Test {
 protected:
  GenerationCoordinatorTest() {
    ::signal(SIGPIPE, SIG_IGN);
    fs::create_directories(home.path() / ".local/bin");
    for (const char* engine : {"claude", "codex"}) {
      const fs::path installed = home.path() / ".local/bin" / engine;
      fs::copy_file(PRACTICE_ENGINE, installed);
      fs::permissions(installed, fs::perms::owner_all);
    }
    lookups.currentUser = [this] { return std::optional(user); };
  }

  GenerationCoordinator coordinator() { return {runner, temporary.path(), lookups}; }

  GenerationRequest request(Engine engine, std::string prompt, Shape shape = Shape::freeText) {
    return {UUID::random(), engine, shape, "Be brief.", std::move(prompt), GenerationTimeout(60)};
  }

  Outcome generate(Engine engine, std::string prompt, Shape shape = Shape::freeText) {
    return coordinator().generate(request(engine, std::move(prompt), shape));
  }

  void expectRefusal(const Outcome& outcome, const GenerationErrorPayload& expected) {
    ASSERT_FALSE(outcome);
    EXPECT_EQ(outcome.error(), expected) << outcome.error().detail.value_or("");
  }

  CLIRunner runner;
  TemporaryDirectory home;
  TemporaryDirectory temporary;
  CurrentUser user{home.path(), "practice"};
  GenerationLookups lookups;
};

TEST_F(GenerationCoordinatorTest, GeneratesWithEachEngineInEachShape) {
  for (const Engine engine : allGenerationEngineIDs) {
    for (const Shape shape : allGenerationShapes) {
      const auto asked = request(engine, "Describe testing\nwell", shape);
      const auto outcome = coordinator().generate(asked);
      ASSERT_TRUE(outcome) << outcome.error().detail.value_or("");
      EXPECT_EQ(outcome->requestID, asked.requestID());
      EXPECT_EQ(outcome->engine, engine);
      EXPECT_NE(outcome->text.find("Describe testing"), std::string::npos);
      EXPECT_EQ(outcome->fields.has_value(), shape == Shape::itemFields);
      EXPECT_TRUE(outcome->tokens);
      EXPECT_GE(outcome->durationMilliseconds, 0);
      EXPECT_LT(outcome->durationMilliseconds, 60'000);
      EXPECT_TRUE(fs::is_empty(temporary.path()));
    }
  }
}

TEST_F(GenerationCoordinatorTest, FailuresComeAsTheEngineLeftThem) {
  std::string diagnostic;
  for (int i = 0; i < 10'000; ++i) {
    if (i >= 8'000 && i < 8'500)
      diagnostic += i % 26 == 4 ? "é" : std::string(1, static_cast<char>('a' + i % 26));
  }
  struct Row {
    Engine engine;
    const char* prompt;
    GenerationErrorPayload expected;
  };
  const Row rows[] = {
      {Engine::codex,
       "practice:long-stderr=10000 practice:exit=3",
       {Kind::nonZeroExit, Engine::codex, 3, diagnostic}},
      {Engine::claudeCode,
       "practice:stderr=it_failed practice:exit=3",
       {Kind::nonZeroExit, Engine::claudeCode, 3, "it failed"}},
  };
  for (const Row& row : rows) {
    expectRefusal(generate(row.engine, row.prompt), row.expected);
    EXPECT_TRUE(fs::is_empty(temporary.path()));
  }
  for (const Engine engine : allGenerationEngineIDs) {
    const auto outcome = generate(engine, "practice:garbage");
    ASSERT_FALSE(outcome);
    EXPECT_EQ(outcome.error().kind, Kind::malformedOutput);
  }
  EXPECT_TRUE(fs::is_empty(temporary.path()));
}

TEST_F(GenerationCoordinatorTest, FailsToLaunchWithoutWhatItNeeds) {
  const auto codex = [](Kind kind, const char* detail) {
    return GenerationErrorPayload{kind, Engine::codex, std::nullopt, detail};
  };
  const auto current = lookups.currentUser;
  int lookedUp = 0;
  lookups.currentUser = [&] { return ++lookedUp == 1 ? std::optional(user) : std::nullopt; };
  expectRefusal(generate(Engine::codex, "text"),
                codex(Kind::launchFailed, "Could not determine the current user."));
  EXPECT_EQ(lookedUp, 2);
  lookups.currentUser = current;

  fs::permissions(temporary.path(), fs::perms::owner_all | fs::perms::others_read);
  expectRefusal(generate(Engine::codex, "text"), codex(Kind::launchFailed, "Permission denied"));
  fs::permissions(temporary.path(), fs::perms::owner_all);

  fs::remove(home.path() / ".local/bin/codex");
  expectRefusal(
      generate(Engine::codex, "text"),
      codex(Kind::binaryNotFound, "codex wasn’t found in any of the usual install locations."));
  EXPECT_TRUE(fs::is_empty(temporary.path()));
}

TEST_F(GenerationCoordinatorTest, SchemaThatCannotBeWrittenIsLeftOut) {
  const auto asked = request(Engine::codex, "text");
  const fs::path directory =
      temporary.path() / ("tessaloom-generation-" + asked.requestID().string());
  fs::create_directories(directory / "schema.json");
  fs::permissions(directory, fs::perms::owner_all);
  const auto outcome = coordinator().generate(asked);
  EXPECT_TRUE(outcome) << outcome.error().detail.value_or("");
  EXPECT_TRUE(fs::is_empty(temporary.path()));
}

TEST_F(GenerationCoordinatorTest, StatusTellsWhatTheProbePrints) {
  struct Row {
    const char* words;
    const char* version;
  };
  const Row rows[] = {{"", "codex-cli 0.169.0"},
                      {"practice:exit=1", "codex-cli 0.169.0"},
                      {"practice:no-output", ""},
                      {"practice:no-output practice:signal=6", ""}};
  for (const Row& row : rows) {
    std::ofstream(home / ".practice-version") << row.words;
    EXPECT_EQ(coordinator().engineStatus({Engine::codex}),
              (EngineStatus{Engine::codex, true, std::nullopt, row.version}))
        << row.words;
  }
  EXPECT_EQ(runner.inFlightCount(), 0U);
}

TEST_F(GenerationCoordinatorTest, StatusWithoutAUserProbesInAnEmptyEnvironment) {
  const fs::path probe = home.path() / "print-env";
  std::ofstream(probe) << "#!/bin/sh\nexec " PRACTICE_ENGINE " practice no-read print-env\n";
  fs::permissions(probe, fs::perms::owner_all);
  lookups.engine = [&](Engine, const std::optional<CurrentUser>&) { return probe; };
  lookups.currentUser = [] { return std::optional<CurrentUser>(); };
  const auto version = coordinator().engineStatus({Engine::codex}).version;
  ASSERT_TRUE(version);
  // What the shell sets by itself.
  EXPECT_EQ(version->find("HOME="), std::string::npos) << *version;
  EXPECT_EQ(version->find("PATH="), std::string::npos) << *version;
}

TEST_F(GenerationCoordinatorTest, StatusOfAHangingEngineHasNoVersion) {
  std::ofstream(home / ".practice-version") << "practice:hang";
  EXPECT_EQ(coordinator().engineStatus({Engine::codex}),
            (EngineStatus{Engine::codex, true, std::nullopt, std::nullopt}));
}

}  // namespace
}  // namespace tessaloom
