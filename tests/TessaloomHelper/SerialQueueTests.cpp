#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "TessaloomHelper/ManualTasks.h"
#include "linux/SerialQueue.h"

namespace tessaloom {
namespace {

TEST(SerialQueue, TakesOneThreadWhileThereAreJobsAndKeepsNoneThatFoundNoThread) {
  ManualTasks tasks;
  std::optional<SerialQueue> queue(std::in_place, tasks, QualityOfService::userInitiated);
  std::vector<int> ran;
  const auto submit = [&](int job) { queue->submit([&ran, job] { ran.push_back(job); }); };
  tasks.isExhausted = true;
  EXPECT_THROW(submit(1), std::bad_alloc);
  tasks.isExhausted = false;
  submit(2);
  submit(3);
  EXPECT_EQ(tasks.entries.size(), 1U);
  tasks.run();
  EXPECT_EQ(ran, (std::vector{2, 3}));
  EXPECT_TRUE(tasks.entries.empty());
  submit(4);
  queue.reset();
  tasks.run();
  EXPECT_EQ(ran.back(), 4) << "what was accepted outlives the queue";
}

}  // namespace
}  // namespace tessaloom
