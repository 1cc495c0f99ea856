#include <cerrno>
#include <functional>

#include <gtest/gtest.h>

#include "HelperCore/ProcessKill.h"
#include "HelperCore/ProvenanceCache.h"
#include "HelperCore/ScriptedKernel.h"

namespace tessaloom {
namespace {

constexpr ProcessStartTime start{1'700'000'000, 250'000};
constexpr double listedAt = 1'700'000'100;

Instant at(double seconds) {
  return Instant{Instant::duration{seconds}};
}

ProcessIdentity identity(std::int32_t pid, ProcessStartTime when = start) {
  return {.pid = pid, .startSec = when.startSec, .startUSec = when.startUSec};
}

const KillResult refused{
    .succeeded = false,
    .message =
        "Not authorized: process was not in a recent listing, or has since changed identity (B3)."};

/// A process 100 that was listed and still runs, and a request to end it.
class ProcessKillTest : public testing::Test {
 protected:
  ProcessKillTest() {
    kernel.startTimes[100] = start;
    cache.record(std::vector{identity(100)}, at(listedAt));
  }

  KillResult kill(double now, Signal signal = Signal::terminate) {
    kernel.wallClock = [now] { return at(now); };
    return killProcess({.pid = ProcessID{100}, .signal = signal}, kernel, cache);
  }

  ScriptedKernel kernel;
  ProvenanceCache cache{std::chrono::seconds{60}};
};

TEST_F(ProcessKillTest, SendsThePosixNumbersAndReportsTheKernelsRefusal) {
  for (Signal signal : {Signal::interrupt, Signal::kill, Signal::terminate}) {
    EXPECT_EQ(kill(listedAt, signal), KillResult{.succeeded = true});
  }
  EXPECT_EQ(kernel.signals,
            (std::vector<std::pair<std::int32_t, std::int32_t>>{{100, 2}, {100, 9}, {100, 15}}));
  kernel.signalError = EPERM;
  EXPECT_EQ(kill(listedAt), (KillResult{.succeeded = false, .message = "Operation not permitted"}));
}

TEST_F(ProcessKillTest, RefusesWhatTheListingDoesNotAuthorize) {
  struct Row {
    const char* name;
    double now;
    std::function<void()> arrange;
    bool allowed = false;
  };
  const Row rows[] = {
      {"at the moment of the listing", listedAt, [] {}, true},
      {"exactly 60 seconds old", listedAt + 60, [] {}, true},
      {"more than 60 seconds old", listedAt + 60.001, [] {}},
      {"the clock was set back", listedAt - 0.001, [] {}},
      {"the process is gone", listedAt, [&] { kernel.startTimes.clear(); }},
      {"another second", listedAt, [&] { ++kernel.startTimes[100].startSec; }},
      {"another microsecond", listedAt, [&] { ++kernel.startTimes[100].startUSec; }},
      {"not in the latest listing", listedAt,
       [&] { cache.record(std::vector{identity(101)}, at(listedAt)); }},
      {"the latest listing is empty", listedAt, [&] { cache.record({}, at(listedAt)); }},
      {"the first of two with one pid counts", listedAt,
       [&] { cache.record(std::vector{identity(100), identity(100, {1, 1})}, at(listedAt)); },
       true},
      {"the second of two with one pid does not", listedAt,
       [&] { cache.record(std::vector{identity(100, {1, 1}), identity(100)}, at(listedAt)); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    kernel.startTimes[100] = start;
    kernel.signals.clear();
    cache.record(std::vector{identity(100)}, at(listedAt));
    row.arrange();
    EXPECT_EQ(kill(row.now), row.allowed ? KillResult{.succeeded = true} : refused);
    EXPECT_EQ(kernel.signals.size(), row.allowed ? 1U : 0U);
    // Asking changes nothing.
    EXPECT_EQ(kill(row.now), row.allowed ? KillResult{.succeeded = true} : refused);
  }
}

}  // namespace
}  // namespace tessaloom
