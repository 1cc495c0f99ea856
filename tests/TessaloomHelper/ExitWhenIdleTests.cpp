#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "TessaloomHelper/ExitWhenIdle.h"
#include "TessaloomHelper/ManualTasks.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

namespace fs = std::filesystem;

TEST(ExitWhenIdleTest, KnowsAReplacedExecutable) {
  const TemporaryDirectory directory;
  const fs::path executable = directory / "helper";
  const fs::path other = directory / "other";
  for (const fs::path& file : {executable, other}) std::ofstream(file).put('x');
  const auto start = fs::last_write_time(executable);
  CLIRunner runner;
  ManualTasks tasks;
  const auto isReplaced = [&, identity = ExecutableIdentity::of(executable)](const fs::path& path) {
    return ExitWhenIdle(path, identity, runner, tasks, [] {}).isExecutableReplaced();
  };
  EXPECT_FALSE(isReplaced(executable));
  fs::last_write_time(executable, start - std::chrono::milliseconds(1));
  EXPECT_FALSE(isReplaced(executable));
  fs::last_write_time(executable, start + std::chrono::milliseconds(1));
  EXPECT_TRUE(isReplaced(executable));
  fs::last_write_time(other, start - std::chrono::hours(1));
  EXPECT_TRUE(isReplaced(other)) << "another file counts even when it is older";
  EXPECT_FALSE(isReplaced(directory / "missing"));
  EXPECT_FALSE(ExitWhenIdle(other, {}, runner, tasks, [] {}).isExecutableReplaced());
}

TEST(ExitWhenIdleTest, StaysWhileAnAcceptedEngineCallIsUnfinishedOrNothingIsLeftForTheCheck) {
  CLIRunner runner;
  ManualTasks tasks;
  int left = 0;
  ExitWhenIdle exit({}, {}, runner, tasks, [&left] { ++left; });
  auto accepted = runner.accept();
  const auto copy = accepted;
  exit.scheduleExitWhenIdle(ExitWhenIdle::firstCheck);
  for (const bool isLast : {false, true}) {
    tasks.run();
    ASSERT_EQ(tasks.entries.size(), 1U);
    EXPECT_EQ(tasks.entries[0].delay, ExitWhenIdle::nextCheck);
    if (!isLast) accepted.reset();
  }
  tasks.isExhausted = true;
  tasks.run();
  EXPECT_EQ(left, 0);
}

}  // namespace
}  // namespace tessaloom
