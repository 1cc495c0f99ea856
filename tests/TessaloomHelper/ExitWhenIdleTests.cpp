#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <future>

#include <gtest/gtest.h>

#include "TessaloomHelper/ExitWhenIdle.h"
#include "TessaloomHelper/ManualTasks.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

using namespace std::chrono_literals;

class ExitWhenIdleTest : public testing::Test {
 protected:
  ExitWhenIdleTest() { write(executable); }

  static void write(const std::filesystem::path& file) { std::ofstream(file).put('x'); }

  void setTime(std::int64_t seconds, long nanoseconds) {
    const timespec times[] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(::utimensat(AT_FDCWD, executable.c_str(), times, 0), 0);
  }

  ExitWhenIdle started() {
    return {executable, ExecutableIdentity::of(executable), runner, tasks, [this] { ++left; }};
  }

  TemporaryDirectory directory;
  std::filesystem::path executable = directory / "helper";
  CLIRunner runner;
  ManualTasks tasks;
  int left = 0;
};

TEST_F(ExitWhenIdleTest, KnowsAReplacedExecutable) {
  setTime(1'000'000'000, 500);
  const ExitWhenIdle exit = started();
  EXPECT_FALSE(exit.isExecutableReplaced());
  setTime(1'000'000'000, 0);
  EXPECT_FALSE(exit.isExecutableReplaced());
  setTime(999'999'999, 0);
  EXPECT_FALSE(exit.isExecutableReplaced());
  setTime(1'000'000'000, 500'000);
  EXPECT_TRUE(exit.isExecutableReplaced());
  setTime(1'000'000'000, 500);
  EXPECT_FALSE(exit.isExecutableReplaced());

  const std::filesystem::path other = directory / "other";
  write(other);
  std::filesystem::rename(other, executable);
  setTime(1, 0);  // Another file counts even when it is older.
  EXPECT_TRUE(exit.isExecutableReplaced());
  std::filesystem::remove(executable);
  EXPECT_FALSE(exit.isExecutableReplaced());
}

TEST_F(ExitWhenIdleTest, KnowsNothingWithoutAPathOrAnIdentity) {
  const auto identity = ExecutableIdentity::of("/");
  EXPECT_FALSE(ExitWhenIdle(executable, {}, runner, tasks, [] {}).isExecutableReplaced());
  EXPECT_FALSE(ExitWhenIdle({}, identity, runner, tasks, [] {}).isExecutableReplaced());
}

TEST_F(ExitWhenIdleTest, LeavesAtTheFirstCheckThatFindsNoGeneration) {
  ::signal(SIGPIPE, SIG_IGN);
  ExitWhenIdle exit = started();
  const UUID id = UUID::random();
  const CLIInvocation sleep{.executable = "/bin/sleep",
                            .arguments = {"600"},
                            .environment = {},
                            .workingDirectory = {},
                            .standardInput = {}};
  auto run = std::async(std::launch::async,
                        [&] { return runner.run(sleep, id, GenerationEngineID::codex, 600s); });
  ASSERT_TRUE(eventually([&] { return runner.inFlightCount() == 1; }));

  exit.scheduleExitWhenIdle(ExitWhenIdle::firstCheck);
  for (const auto delay : {200ms, 500ms, 500ms}) {
    ASSERT_EQ(tasks.entries.size(), 1U);
    EXPECT_EQ(tasks.entries.front().delay, delay);
    EXPECT_EQ(tasks.entries.front().quality, QualityOfService::utility);
    tasks.run();
  }
  EXPECT_EQ(left, 0);
  runner.cancel(id);
  run.wait();
  tasks.run();
  EXPECT_EQ(left, 1);
  EXPECT_TRUE(tasks.entries.empty());
}

TEST_F(ExitWhenIdleTest, StaysWhenTheSystemHasNothingLeftForTheCheck) {
  ExitWhenIdle exit = started();
  tasks.isExhausted = true;
  exit.scheduleExitWhenIdle(ExitWhenIdle::firstCheck);
  tasks.isExhausted = false;
  tasks.run();
  EXPECT_EQ(left, 0);
}

}  // namespace
}  // namespace tessaloom
