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

constexpr auto quality = QualityOfService::userInitiated;

TEST(SerialQueue, RunsJobsInOrderAndOneAtATime) {
  std::vector<int> order;
  std::atomic<int> atOnce = 0;
  {
    ThreadTasks tasks;
    SerialQueue queue(tasks, quality);
    for (int i = 0; i < 2'000; ++i) {
      queue.submit([&order, &atOnce, i] {
        EXPECT_EQ(atOnce.fetch_add(1), 0);
        order.push_back(i);
        --atOnce;
      });
    }
  }
  std::vector<int> expected(2'000);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(order, expected);
}

TEST(SerialQueue, TakesOneThreadWhileThereAreJobsAndKeepsNoneThatFoundNoThread) {
  ManualTasks tasks;
  std::optional<SerialQueue> queue(std::in_place, tasks, quality);
  int ran = 0;
  tasks.isExhausted = true;
  EXPECT_THROW(queue->submit([&ran] { ran += 100; }), std::bad_alloc);
  tasks.isExhausted = false;
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
  EXPECT_EQ(ran, 3) << "what was accepted outlives the queue";
}

}  // namespace
}  // namespace tessaloom
