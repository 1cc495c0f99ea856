#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>

#include <gtest/gtest.h>

#include "TessaloomHelper/ExitWhenIdle.h"
#include "TessaloomHelper/ManualTasks.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

class ExitWhenIdleTest : public testing::Test {
 protected:
  ExitWhenIdleTest() {
    write(executable);
    setTime(1'000'000'000, 500);
    exit.emplace(executable, ExecutableIdentity::of(executable), runner, tasks, [this] { ++left; });
  }

  static void write(const std::filesystem::path& file) { std::ofstream(file).put('x'); }

  void setTime(std::int64_t seconds, long nanoseconds) {
    const timespec times[] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(::utimensat(AT_FDCWD, executable.c_str(), times, 0), 0);
  }

  TemporaryDirectory directory;
  std::filesystem::path executable = directory / "helper";
  CLIRunner runner;
  ManualTasks tasks;
  std::optional<ExitWhenIdle> exit;
  int left = 0;
};

TEST_F(ExitWhenIdleTest, KnowsAReplacedExecutable) {
  EXPECT_FALSE(exit->isExecutableReplaced());
  setTime(1'000'000'000, 0);
  EXPECT_FALSE(exit->isExecutableReplaced());
  setTime(1'000'000'000, 500'000);
  EXPECT_TRUE(exit->isExecutableReplaced());
  const std::filesystem::path other = directory / "other";
  write(other);
  std::filesystem::rename(other, executable);
  setTime(1, 0);  // Another file counts even when it is older.
  EXPECT_TRUE(exit->isExecutableReplaced());
  EXPECT_FALSE(ExitWhenIdle(executable, {}, runner, tasks, [] {}).isExecutableReplaced());
  const auto identity = ExecutableIdentity::of("/");
  EXPECT_FALSE(ExitWhenIdle({}, identity, runner, tasks, [] {}).isExecutableReplaced());
  std::filesystem::remove(executable);
  EXPECT_FALSE(exit->isExecutableReplaced());
}

TEST_F(ExitWhenIdleTest, StaysWhileAnAcceptedEngineCallIsUnfinished) {
  auto accepted = runner.accept();
  const auto copy = accepted;
  exit->scheduleExitWhenIdle(ExitWhenIdle::firstCheck);
  for (const bool isLast : {false, true}) {
    tasks.run();
    ASSERT_EQ(tasks.entries.size(), 1U);
    EXPECT_EQ(tasks.entries[0].delay, ExitWhenIdle::nextCheck);
    if (!isLast) accepted.reset();
  }
  EXPECT_EQ(left, 0);
}

TEST_F(ExitWhenIdleTest, StaysWhenTheSystemHasNothingLeftForTheCheck) {
  tasks.isExhausted = true;
  exit->scheduleExitWhenIdle(ExitWhenIdle::firstCheck);
  tasks.isExhausted = false;
  exit->scheduleExitWhenIdle(ExitWhenIdle::firstCheck);
  tasks.run();
  EXPECT_EQ(left, 1);
}

}  // namespace
}  // namespace tessaloom
