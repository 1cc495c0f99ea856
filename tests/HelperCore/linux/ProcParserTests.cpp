#include <string>

#include <gtest/gtest.h>

#include "linux/ProcParser.h"
#include "linux/StartClock.h"
#include "linux/TerminalName.h"

namespace tessaloom {
namespace {

using namespace std::string_literals;

/// A line of /proc/PID/stat as far as the start time.
std::string statLine(const std::string& name) {
  return "42 (" + name +
         ") S 7 42 42 -2147483648 -1 2097152 100 200 0 0 5 6 0 0 20 0 3 0 123456 1000000 300\n";
}

TEST(ProcParser, ReadsTheStatLineWhateverTheName) {
  for (const std::string& name :
       {"two words"s, "a) S 1 1"s, "((("s, "new\nline"s, "\xff\xfe"s, ""s}) {
    const std::string line = statLine(name);
    EXPECT_EQ(parseProcessStat(line), (ProcessStat{name, 'S', 7, 0x80000000U, true, 3, 123456}))
        << name;
  }
  EXPECT_FALSE(
      parseProcessStat("1 (sh) S 1 1 1 0 -1 64 1 1 0 0 1 1 0 0 20 0 1 0 1 1 1")->isKernelThread);
  const std::string line = statLine("sh");
  for (std::size_t length = 0; length <= line.find("123456"); ++length) {
    EXPECT_FALSE(parseProcessStat(line.substr(0, length))) << "cut short: " << length;
  }
  EXPECT_FALSE(parseProcessStat(") S 1 (")) << "the name ends before it begins";
}

TEST(ProcParser, ReadsTheSmallFilesAndTheNamesOfLinksAndEntries) {
  EXPECT_EQ(parseResidentPages("2610 812 700 1 0 120 0\n"), 812U);
  EXPECT_EQ(parseResidentPages("2610"), std::nullopt);
  EXPECT_EQ(parseRunCounters("1500 20 3\n"), (RunCounters{1500, 3}));
  EXPECT_EQ(parseRunCounters("0 0 0\n"), std::nullopt) << "a kernel that does not count";
  EXPECT_EQ(parseRunCounters("1500 20"), std::nullopt);
  EXPECT_EQ(parseDescriptorRoom("Name:\tFDSize:\nNgid:\t0\nFDSize:\t256\nGroups:\t\n"), 256);
  EXPECT_EQ(parseDescriptorRoom("Name:\tsh\n"), std::nullopt);
  EXPECT_EQ(parseInodeLink("socket", "socket:[4294967295]"), 4294967295U);
  for (const char* link :
       {"socket:[", "socket:]", "socket:[]", "socket:[1x]", "socket1]", "pipe:[1]"}) {
    EXPECT_EQ(parseInodeLink("socket", link), std::nullopt) << link;
  }
  EXPECT_EQ(parseNumberName("4242"), 4242);
  for (const char* name : {"self", "", "-1", "42a", "99999999999"}) {
    EXPECT_EQ(parseNumberName(name), std::nullopt) << name;
  }
}

TEST(TerminalName, FollowsTheDeviceNumber) {
  // Twelve bits of major stand between the halves of twenty bits of minor.
  const std::pair<std::uint32_t, std::string> names[] = {
      {0, ""},          {0x8803, "pts/3"}, {0x8fff, "pts/2047"}, {0x108803, "pts/259"},
      {0x43f, "tty63"}, {0x440, "ttyS0"},  {0x103, "null"},  // By the link that the system keeps.
      {0xffffffff, ""}};
  for (const auto& [device, name] : names) EXPECT_EQ(terminalName(device), name) << device;
}

TEST(StartClock, AddsTicksToAWholeTickOfTheBootAndSleepsUntilOneIsOver) {
  const StartClock clock{std::chrono::milliseconds{1'700'000'000'019}, 100};
  EXPECT_EQ(clock.startTime(0), (ProcessStartTime{1'700'000'000, 10'000}));
  EXPECT_EQ(clock.startTime(360'000'099), (ProcessStartTime{1'703'600'001, 0}));

  // The wall clock has no part in it.
  const double now = clock.now().time_since_epoch().count();
  const auto latest = clock.startTime(clock.currentTick());
  EXPECT_NEAR(now, static_cast<double>(latest.startSec) + latest.startUSec / 1e6, 0.1);

  const StartClock ticking;
  const std::uint64_t tick = ticking.currentTick();
  ticking.sleepPast(tick);
  EXPECT_GT(ticking.currentTick(), tick);
}

}  // namespace
}  // namespace tessaloom
