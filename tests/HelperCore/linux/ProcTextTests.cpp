#include <string>

#include <gtest/gtest.h>

#include "linux/ProcText.h"
#include "linux/StartClock.h"
#include "linux/TerminalName.h"

namespace tessaloom::linux_kernel {
namespace {

using namespace std::string_literals;

/// A line of /proc/PID/stat as far as the start time, with what differs between the rows put in.
std::string statLine(const std::string& name, const std::string& terminal = "0") {
  return "42 (" + name + ") S 7 42 42 " + terminal +
         " -1 4194304 100 200 0 0 5 6 0 0 20 0 1 0 123456 1000000 300 18446744073709551615\n";
}

TEST(ProcText, ReadsTheStatLineWhateverTheName) {
  for (const std::string& name :
       {"sh"s, "two words"s, "a) S 1 1"s, "((("s, ")"s, "new\nline"s, "\xff\xfe"s, ""s}) {
    SCOPED_TRACE(name);
    std::string line = statLine(name);
    auto stat = parseProcessStat(line);
    ASSERT_TRUE(stat);
    EXPECT_EQ(*stat,
              (ProcessStat{
                  .name = name, .state = 'S', .parentPID = 7, .threads = 1, .startTicks = 123456}));
  }
  EXPECT_EQ(parseProcessStat(statLine("sh", "-2147483648"))->terminal, 0x80000000U);
}

TEST(ProcText, RefusesWhatIsCutShort) {
  const std::string line = statLine("sh");
  const std::size_t needed = line.find("123456") + 1;
  for (std::size_t length = 0; length < needed; ++length) {
    EXPECT_FALSE(parseProcessStat(line.substr(0, length))) << length;
  }
  EXPECT_FALSE(parseProcessStat(") S 1 (")) << "the name ends before it begins";
}

TEST(ProcText, ReadsTheSmallFiles) {
  EXPECT_EQ(parseResidentPages("2610 812 700 1 0 120 0\n"), 812U);
  EXPECT_EQ(parseResidentPages("2610"), std::nullopt);
  EXPECT_EQ(parseRunCounters("1500 20 3\n"), (RunCounters{1500, 20, 3}));
  EXPECT_EQ(parseRunCounters("0 0 0\n"), std::nullopt) << "a kernel that does not count";
  EXPECT_EQ(parseRunCounters("1500 20"), std::nullopt);
  EXPECT_EQ(parseRunCounters(""), std::nullopt);
  EXPECT_EQ(parseDescriptorRoom("Name:\tFDSize:\nNgid:\t0\nFDSize:\t256\nGroups:\t\n"), 256);
  EXPECT_EQ(parseDescriptorRoom("Name:\tsh\n"), std::nullopt);
}

TEST(ProcText, ReadsLinksAndEntries) {
  EXPECT_EQ(parseSocketLink("socket:[18446744073709551615]"), 18446744073709551615U);
  for (const char* link : {"socket:[", "socket:[]", "socket:[1", "socket:[1x]", "pipe:[1]", ""}) {
    EXPECT_EQ(parseSocketLink(link), std::nullopt) << link;
  }
  EXPECT_EQ(parseNumberName("4242"), 4242);
  for (const char* name : {"self", "", "-1", "42a", "99999999999"}) {
    EXPECT_EQ(parseNumberName(name), std::nullopt) << name;
  }
}

TEST(TerminalName, FollowsTheDeviceNumber) {
  struct Row {
    std::uint32_t major;
    std::uint32_t minor;
    std::optional<std::string> name;
  };
  const Row rows[] = {{136, 0, "pts/0"},      {136, 255, "pts/255"}, {137, 4, "pts/260"},
                      {143, 255, "pts/2047"}, {4, 1, "tty1"},        {4, 63, "tty63"},
                      {4, 64, "ttyS0"},       {4, 67, "ttyS3"},      {204, 64, std::nullopt},
                      {144, 0, std::nullopt}, {5, 1, std::nullopt}};
  for (const Row& row : rows) {
    EXPECT_EQ(wellKnownTerminalName({row.major, row.minor}), row.name)
        << row.major << ":" << row.minor;
  }
  // Twelve bits of major stand between the halves of twenty bits of minor.
  DeviceNumber packed = deviceNumber(0x00108803);
  EXPECT_EQ(packed.major, 136U);
  EXPECT_EQ(packed.minor, 0x103U);
  EXPECT_EQ(terminalName(0), "");
  EXPECT_EQ(terminalName(0xfff00 | 0xfff000ff), "") << "no such device";
  EXPECT_EQ(terminalName((1U << 8) | 3U), "null") << "by the link that the system keeps";
}

TEST(StartClock, AddsTicksToAWholeTickOfTheBoot) {
  using std::chrono::milliseconds;
  StartClock clock{milliseconds{1'700'000'000'019}, 100};
  EXPECT_EQ(clock.startTime(0), (ProcessStartTime{1'700'000'000, 10'000}));
  EXPECT_EQ(clock.startTime(98), (ProcessStartTime{1'700'000'000, 990'000}));
  EXPECT_EQ(clock.startTime(99), (ProcessStartTime{1'700'000'001, 0}));
  EXPECT_EQ(clock.startTime(360'000'099), (ProcessStartTime{1'703'600'001, 0}));
}

TEST(StartClock, SleepsUntilATickIsOver) {
  StartClock clock;
  std::uint64_t tick = clock.currentTick();
  clock.sleepPast(tick);
  EXPECT_GT(clock.currentTick(), tick);
}

}  // namespace
}  // namespace tessaloom::linux_kernel
