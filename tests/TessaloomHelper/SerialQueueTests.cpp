#include <atomic>
#include <numeric>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "TessaloomHelper/ManualTasks.h"
#include "linux/SerialQueue.h"
#include "linux/ThreadTasks.h"

namespace tessaloom {
namespace {

TEST(SerialQueue, RunsJobsInOrderAndOneAtATime) {
  constexpr int count = 2'000;
  std::vector<int> order;
  std::atomic<int> atOnce = 0;
  {
    ThreadTasks tasks;
    SerialQueue queue(tasks, QualityOfService::userInitiated);
    for (int i = 0; i < count; ++i) {
      queue.submit([&order, &atOnce, i] {
        EXPECT_EQ(atOnce.fetch_add(1), 0);
        order.push_back(i);
        --atOnce;
      });
    }
  }
  std::vector<int> expected(count);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(order, expected);
}

TEST(SerialQueue, RunsWhatItAcceptedAfterItsEndAndTakesNoThreadForNothing) {
  ManualTasks tasks;
  std::optional<SerialQueue> queue(std::in_place, tasks, QualityOfService::userInitiated);
  int ran = 0;
  const auto job = [&ran] { ++ran; };
  queue->submit(job);
  queue->submit(job);
  EXPECT_EQ(tasks.entries.size(), 1U);
  tasks.run();
  EXPECT_EQ(ran, 2);
  EXPECT_TRUE(tasks.entries.empty());
  queue->submit(job);
  queue.reset();
  tasks.run();
  EXPECT_EQ(ran, 3);
}

TEST(SerialQueue, DoesNotKeepAJobThatFoundNoThread) {
  ManualTasks tasks;
  SerialQueue queue(tasks, QualityOfService::userInitiated);
  std::vector<int> ran;
  tasks.isExhausted = true;
  EXPECT_THROW(queue.submit([&ran] { ran.push_back(1); }), std::bad_alloc);
  tasks.isExhausted = false;
  queue.submit([&ran] { ran.push_back(2); });
  tasks.run();
  EXPECT_EQ(ran, std::vector<int>{2});
}

}  // namespace
}  // namespace tessaloom
