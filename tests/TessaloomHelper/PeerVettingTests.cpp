#include <algorithm>
#include <cerrno>
#include <map>
#include <vector>

#include <gtest/gtest.h>

#include "TessaloomHelper/ManualTasks.h"
#include "linux/PeerVetting.h"

namespace tessaloom {
namespace {

using Result = PeerVetting::Result;
using std::chrono::milliseconds;

class PeerVettingTest : public testing::Test {
 protected:
  PeerVetting make(milliseconds limit = PeerVetting::timeLimit) {
    return {completions, tasks, [this](pid_t process) { return check(process); },
            [this] { hasDescriptors = true; }, limit};
  }

  std::expected<bool, int> check(pid_t process) const {
    if (!hasDescriptors) return std::unexpected(EMFILE);
    if (process > 100) return std::unexpected(ESRCH);
    return process % 2 == 0;
  }

  bool start(PeerVetting& vetting, pid_t process) {
    return vetting.start(process, [=, this](Result result) { results[process].push_back(result); });
  }

  /// Runs what is to run now (`isTimer` false) or later, until nothing more comes of it.
  void run(bool isTimer) {
    for (std::size_t i = 0; i < tasks.entries.size();) {
      if ((tasks.entries[i].quality == QualityOfService::utility) != isTimer) {
        ++i;
        continue;
      }
      const auto task = std::move(tasks.entries[i].task);
      tasks.entries.erase(tasks.entries.begin() + static_cast<std::ptrdiff_t>(i));
      task();
      completions.runAll();
    }
  }

  std::size_t checksAtOnce() const {
    return static_cast<std::size_t>(std::ranges::count(
        tasks.entries, QualityOfService::userInitiated, &ManualTasks::Entry::quality));
  }

  ManualTasks tasks;
  CompletionQueue completions;
  std::map<pid_t, std::vector<Result>> results;
  bool hasDescriptors = true;
};

TEST_F(PeerVettingTest, ChecksOneProcessAtATimeAndBoundsHowManyWait) {
  PeerVetting vetting = make();
  for (std::size_t i = 0; i < PeerVetting::maximumOfProcess; ++i) EXPECT_TRUE(start(vetting, 7));
  EXPECT_FALSE(start(vetting, 7));
  EXPECT_EQ(checksAtOnce(), 1U);
  for (const pid_t process : {8, 9, 10, 11, 200}) EXPECT_TRUE(start(vetting, process));
  EXPECT_EQ(checksAtOnce(), PeerVetting::maximumRunning);
  hasDescriptors = false;  // Which is no refusal: the first check has some released.
  run(false);
  EXPECT_EQ(results[7], std::vector(PeerVetting::maximumOfProcess, Result::refused));
  EXPECT_EQ(results[8], std::vector{Result::admitted});
  EXPECT_EQ(results[200], std::vector{Result::refused});
}

TEST_F(PeerVettingTest, GivesUpAfterTheTimeLimitAndGoesOnWithOthers) {
  PeerVetting vetting = make(milliseconds(0));
  // Each round leaves as many behind whose thread never comes back.
  for (std::size_t stuck = 0; stuck < PeerVetting::maximumStuck;
       stuck += PeerVetting::maximumRunning) {
    for (std::size_t i = 0; i <= PeerVetting::maximumRunning; ++i) {
      start(vetting, static_cast<pid_t>(2 * (stuck + i)));
    }
    EXPECT_EQ(checksAtOnce(), stuck + PeerVetting::maximumRunning);
    run(true);
  }
  EXPECT_EQ(results[0], std::vector{Result::unknown});
  EXPECT_EQ(results[2 * PeerVetting::maximumRunning].front(), Result::unknown);  // Had to wait.
  results.clear();
  start(vetting, 50);
  start(vetting, 0);  // Its first check still hangs.
  EXPECT_EQ(checksAtOnce(), PeerVetting::maximumStuck + 1);
  run(false);
  EXPECT_EQ(results[50], std::vector{Result::admitted});
  EXPECT_EQ(results[0], std::vector{Result::admitted});
  EXPECT_EQ(results.size(), 2U);  // What came too late is not told again.
}

}  // namespace
}  // namespace tessaloom
