#include <pthread.h>

#include <atomic>
#include <latch>
#include <memory>
#include <system_error>

#include <gtest/gtest.h>

#include "linux/ThreadTasks.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

using namespace std::chrono_literals;
constexpr auto quality = QualityOfService::utility;

TEST(ThreadTasksTest, DestructionRunsWhatWasAcceptedAndDropsWhatIsDelayed) {
  std::atomic<int> ran = 0;
  const auto held = std::make_shared<int>(1);
  std::latch due(1);
  {
    ThreadTasks tasks;
    tasks.runAfter(1h, quality, [&ran, held] { ran += 1000; });
    const auto start = std::chrono::steady_clock::now();
    tasks.runAfter(20ms, quality, [&] { due.count_down(); });
    tasks.runConcurrently(quality, [&] { due.wait(); });  // The only thread keeps the time no more.
    due.wait();
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
    for (int i = 0; i < 200; ++i) {
      tasks.runConcurrently(quality, [&, held] {
        ++ran;
        tasks.runConcurrently(quality, [&ran] { ++ran; });
        tasks.runAfter(0ms, quality, [] {});
      });
    }
  }
  EXPECT_EQ(ran, 400);
  EXPECT_EQ(held.use_count(), 1);
}

TEST(ThreadTasksTest, StopsOnceWhatRunsHasEnded) {
  ThreadTasks tasks;
  std::latch released(1);
  tasks.runConcurrently(quality, [&] { released.wait(); });
  EXPECT_FALSE(tasks.stop(50ms));
  tasks.runConcurrently(quality, [&] { released.count_down(); });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(tasks.stop(10s));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
}

/// What is handed in while these threads are all there can be waits for one of them.
void expectToWaitFor(ThreadTasks& tasks, std::ptrdiff_t threads) {
  std::atomic<int> ran = 0;
  std::latch taken(threads + 1);
  std::latch released(1);
  for (std::ptrdiff_t i = 0; i < threads; ++i) {
    tasks.runConcurrently(quality, [&] {
      taken.count_down();
      released.wait();
      ++ran;
    });
  }
  taken.arrive_and_wait();
  tasks.runConcurrently(quality, [&] { ++ran; });
  tasks.runAfter(1ms, quality, [&] { ++ran; });
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(ran, 0);
  released.count_down();
  EXPECT_TRUE(eventually([&] { return ran == threads + 2; }));
}

TEST(ThreadTasksTest, TasksWaitAboveTheBoundAndWhenNoThreadCanBeMadeOrAreRefused) {
  ThreadTasks bounded;
  expectToWaitFor(bounded, ThreadTasks::maximumThreads);
  ThreadTasks tasks, timing;
  std::latch released(1), taken(2);
  ThreadTasks refusing(ThreadTasks::Shortage::refuses);
  timing.runConcurrently(quality, [&] {
    taken.arrive_and_wait();
    released.wait();
  });
  taken.arrive_and_wait();
  timing.runAfter(ThreadTasks::idleTime + 300ms, quality, [&] { released.count_down(); });
  // The system has no stack as large as new threads ask for from here on.
  pthread_attr_t before;
  pthread_attr_t huge;
  ::pthread_getattr_default_np(&before);
  ::pthread_attr_init(&huge);
  ::pthread_attr_setstacksize(&huge, std::size_t{1} << 50);
  ASSERT_EQ(::pthread_setattr_default_np(&huge), 0);
  EXPECT_THROW(ThreadTasks(), std::system_error);
  refusing.runConcurrently(quality, [&] { released.wait(); });
  EXPECT_THROW(refusing.runConcurrently(quality, [] {}), std::system_error);
  // The only idle thread that keeps the time does not exit, nor does the last one.
  released.wait();
  expectToWaitFor(tasks, 1);
  ::pthread_setattr_default_np(&before);
}

}  // namespace
}  // namespace tessaloom
