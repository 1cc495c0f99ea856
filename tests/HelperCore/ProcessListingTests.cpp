#include <limits>
#include <utility>

#include <gtest/gtest.h>

#include "HelperCore/ProcessListing.h"
#include "HelperCore/ScriptedKernel.h"

namespace tessaloom {
namespace {

using namespace std::string_literals;

Instant at(double seconds) {
  return Instant{Instant::duration{seconds}};
}

RawProcess rawProcess(std::int64_t startSec, std::int32_t startUSec) {
  return {.pid = 7,
          .parentPID = 1,
          .startSec = startSec,
          .startUSec = startUSec,
          .tty = std::nullopt,
          .residentBytes = 0,
          .command = "program"};
}

TEST(ProcessListing, KeepsTheUsersProcessesInTheKernelsOrder) {
  ScriptedKernel kernel;
  ProcessRecord other = ownRecord(20);
  other.owner = 0;
  ProcessRecord child = ownRecord(40);
  child.parentPID = 20;  // The parent is someone else's; its number still shows.
  kernel.table = {ownRecord(30), other, ownRecord(0), ownRecord(-1), child, ownRecord(10)};
  std::vector<std::int32_t> pids;
  for (const RawProcess& row : listRawProcesses(kernel)) pids.push_back(row.pid);
  EXPECT_EQ(pids, (std::vector<std::int32_t>{30, 40, 10}));
  EXPECT_EQ(listRawProcesses(kernel)[1].parentPID, 20);
}

TEST(ProcessListing, ReadsNamesAndTerminals) {
  const std::pair<std::string, std::string> names[] = {
      {"sh\0junk"s, "sh"},
      {"a\xff\xc3z", "a\uFFFD\uFFFDz"},
      {"a\nb\u202E) c", "a\nb\u202E) c"},  // Not cleaned yet.
      {"", ""},
  };
  for (const auto& [bytes, command] : names) {
    ScriptedKernel kernel;
    kernel.table = {ownRecord(1)};
    kernel.table[0].name = bytes;
    EXPECT_EQ(listRawProcesses(kernel).at(0).command, command);
    EXPECT_EQ(listRawProcesses(kernel).at(0).tty, std::nullopt);
    kernel.table[0].terminal = "pts/3";
    EXPECT_EQ(listRawProcesses(kernel).at(0).tty, "pts/3");
  }
}

TEST(ProcessListing, TellsTheAgeInWholeSeconds) {
  struct Row {
    const char* name;
    RawProcess raw;
    double now;
    std::int64_t elapsed;
  };
  const Row rows[] = {
      {"just short of a second", rawProcess(1000, 500'000), 1001.4, 0},
      {"a second", rawProcess(1000, 500'000), 1001.5, 1},
      {"a start in the future", rawProcess(2000, 0), 1000, 0},
      {"further apart than can be told", rawProcess(std::numeric_limits<std::int64_t>::min(), 0),
       9e18, std::numeric_limits<std::int64_t>::max()},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(makeProcessSample(row.raw, at(row.now)).elapsedSeconds(), row.elapsed);
  }
}

TEST(ProcessListing, MakesABoundedSample) {
  RawProcess raw = rawProcess(1'700'000'000, 250'000);
  raw.tty = "pts/3\t";
  raw.command = std::string(300, 'x');
  raw.residentBytes = std::numeric_limits<std::uint64_t>::max();
  ProcessSample sample = makeProcessSample(raw, at(1'700'000'010));
  EXPECT_EQ(sample.startedAt(), at(1'700'000'000.25));
  EXPECT_EQ(sample.tty(), "pts/3");
  EXPECT_EQ(sample.command(), std::string(256, 'x'));
  EXPECT_EQ(sample.residentBytes(), -1);
}

}  // namespace
}  // namespace tessaloom
