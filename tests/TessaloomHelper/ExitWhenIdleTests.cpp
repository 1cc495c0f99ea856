#include <chrono>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "TessaloomHelper/ExitWhenIdle.h"
#include "TessaloomHelper/ManualTasks.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

TEST(ExitWhenIdleTest, DetectsAReplacedExecutable) {
  const TemporaryDirectory directory;
  const std::filesystem::path executable = directory / "helper";
  const std::filesystem::path other = directory / "other";
  for (const std::filesystem::path& file : {executable, other}) std::ofstream(file).put('x');
  const auto start = last_write_time(executable);
  CLIRunner runner;
  ManualTasks tasks;
  const auto isReplaced =
      [&, identity = ExecutableIdentity::of(executable)](const std::filesystem::path& path) {
        return ExitWhenIdle(path, identity, runner, tasks, [] {}).isExecutableReplaced();
      };
  EXPECT_FALSE(isReplaced(executable));
  last_write_time(executable, start - std::chrono::milliseconds(1));
  EXPECT_FALSE(isReplaced(executable));
  last_write_time(executable, start + std::chrono::milliseconds(1));
  EXPECT_TRUE(isReplaced(executable));
  last_write_time(other, start - std::chrono::hours(1));
  EXPECT_TRUE(isReplaced(other)) << "another file counts even when it is older";
  EXPECT_FALSE(isReplaced(directory / "missing"));
  EXPECT_FALSE(ExitWhenIdle(other, {}, runner, tasks, [] {}).isExecutableReplaced());
}

TEST(ExitWhenIdleTest, RepeatsOneCheckAndStaysWhenNothingIsLeftForIt) {
  CLIRunner runner;
  ManualTasks tasks;
  ExitWhenIdle exit({}, {}, runner, tasks, [] { FAIL(); });
  const auto accepted = runner.accept();
  for (const bool isExhausted : {false, true, false}) {
    tasks.isExhausted = false;
    for (int i = 0; i < 2; ++i) exit.scheduleExitWhenIdle(ExitWhenIdle::firstCheck);
    tasks.isExhausted = isExhausted;
    tasks.run();
    EXPECT_EQ(tasks.entries.size(), isExhausted ? 0U : 1U);
  }
}

}  // namespace
}  // namespace tessaloom
