#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <future>
#include <latch>
#include <memory>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "linux/ThreadTasks.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

using std::chrono::milliseconds;
constexpr auto quality = QualityOfService::standard;

std::ptrdiff_t threadCount() {
  return std::ranges::distance(std::filesystem::directory_iterator("/proc/self/task"));
}

/// Makes the system refuse new threads: it has no stack as large as they ask for.
class NoNewThreads {
 public:
  NoNewThreads() {
    ::pthread_getattr_default_np(&before_);
    pthread_attr_t huge;
    ::pthread_attr_init(&huge);
    ::pthread_attr_setstacksize(&huge, std::size_t{1} << 50);
    EXPECT_EQ(::pthread_setattr_default_np(&huge), 0);
    ::pthread_attr_destroy(&huge);
  }
  ~NoNewThreads() {
    ::pthread_setattr_default_np(&before_);
    ::pthread_attr_destroy(&before_);
  }
  NoNewThreads(const NoNewThreads&) = delete;
  NoNewThreads& operator=(const NoNewThreads&) = delete;

 private:
  pthread_attr_t before_;
};

TEST(ThreadTasksTest, BlockedTasksDelayOthersOnlyAboveTheBound) {
  std::latch release(1);
  std::latch blocked(ThreadTasks::maximumThreads);
  std::atomic<int> surplus = 0;
  {
    ThreadTasks tasks;
    for (std::size_t i = 0; i < ThreadTasks::maximumThreads; ++i) {
      tasks.runConcurrently(quality, [&] {
        blocked.count_down();
        release.wait();
      });
    }
    blocked.wait();
    tasks.runConcurrently(quality, [&] { ++surplus; });
    tasks.runAfter(milliseconds(0), quality, [&] { ++surplus; });
    EXPECT_EQ(surplus, 0);
    tasks.runConcurrently(quality, [&] { ++surplus; });
    release.count_down();
    EXPECT_TRUE(eventually([&] { return surplus == 3; }));
  }
}

TEST(ThreadTasksTest, IdleThreadsLeave) {
  // A sanitizer may start a thread of its own beside a process's first.
  std::thread([] {}).join();
  const auto before = threadCount();
  ThreadTasks tasks;
  const auto alone = threadCount();
  for (int round = 0; round < 2; ++round) {
    const auto together = std::make_shared<std::latch>(16);
    for (int i = 0; i < 16; ++i) {
      tasks.runConcurrently(quality, [together] { together->arrive_and_wait(); });
    }
    together->wait();
    EXPECT_TRUE(eventually([&] { return threadCount() == alone; }));
  }
  EXPECT_EQ(alone, before + 2);
}

TEST(ThreadTasksTest, DelayedTasksRunInTheOrderOfTheirTimes) {
  ThreadTasks tasks;
  const NoNewThreads onlyOneWorker;
  std::vector<int> order;
  const auto start = std::chrono::steady_clock::now();
  std::latch done(3);
  for (const int delay : {120, 60, 90}) {
    tasks.runAfter(milliseconds(delay), quality, [&, delay] {
      EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(delay));
      order.push_back(delay);
      done.count_down();
    });
  }
  done.wait();
  EXPECT_EQ(order, (std::vector{60, 90, 120}));
}

TEST(ThreadTasksTest, DestructionRunsWhatWasAcceptedAndDropsWhatIsDelayed) {
  std::atomic<int> ran = 0;
  auto held = std::make_shared<int>(1);
  {
    ThreadTasks tasks;
    tasks.runAfter(std::chrono::hours(1), quality, [&ran, held] { ran += 1000; });
    for (int i = 0; i < 200; ++i) {
      tasks.runConcurrently(quality, [&, held] {
        ++ran;
        tasks.runConcurrently(quality, [&ran] { ++ran; });
        tasks.runAfter(milliseconds(0), quality, [] {});
      });
    }
  }
  EXPECT_EQ(ran, 400);
  EXPECT_EQ(held.use_count(), 1);
}

TEST(ThreadTasksTest, TasksWaitForTheThreadsThereAreWhenNoneCanBeMade) {
  std::atomic<int> ran = 0;
  ThreadTasks tasks;
  std::latch release(1);
  std::latch blocked(1);
  tasks.runConcurrently(quality, [&] {
    blocked.count_down();
    release.wait();
  });
  blocked.wait();
  const NoNewThreads scarce;
  EXPECT_THROW(ThreadTasks(), std::system_error);
  tasks.runConcurrently(quality, [&] { ++ran; });
  tasks.runAfter(milliseconds(1), quality, [&] { ++ran; });
  EXPECT_EQ(ran, 0);
  release.count_down();
  EXPECT_TRUE(eventually([&] { return ran == 2; }));
}

}  // namespace
}  // namespace tessaloom
