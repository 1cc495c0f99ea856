#include <arpa/inet.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HelperCore/ListeningPorts.h"
#include "HelperCore/ProcessKill.h"
#include "HelperCore/ProcessListing.h"
#include "HelperCore/ProvenanceCache.h"
#include "HelperCore/ScriptedKernel.h"
#include "macos/KernelLists.h"

namespace tessaloom {
namespace {

using namespace std::string_literals;

Instant at(double seconds) {
  return Instant{Instant::duration{seconds}};
}

TEST(ProcessListing, KeepsTheUsersProcessesInTheKernelsOrder) {
  ScriptedKernel kernel;
  ProcessRecord other = ownRecord(20);
  other.owner = 0;
  ProcessRecord child = ownRecord(40);
  child.parentPID = 20;  // The parent is someone else's; its number still shows.
  child.name = "a\xff\n\0junk"s;
  child.terminal = "pts/3";
  kernel.table = {ownRecord(30), other, ownRecord(0), ownRecord(-1), child, ownRecord(1)};
  const std::vector<RawProcess> expected{
      {30, 1, 1'700'000'000, 250'000, std::nullopt, 4096, "program"},
      {40, 20, 1'700'000'000, 250'000, "pts/3", 4096, "a\uFFFD\n"},  // Not cleaned yet.
      {1, 1, 1'700'000'000, 250'000, std::nullopt, 4096, "program"}};
  EXPECT_EQ(listRawProcesses(kernel), expected);
}

TEST(ProcessListing, MakesASampleWithTheAgeInWholeSeconds) {
  using Limits = std::numeric_limits<std::int64_t>;
  struct Row {
    std::int64_t startSec;
    double now;
    std::int64_t elapsed;
  };
  // Just short of a second, a second, a start in the future, further apart than can be told.
  for (const auto& [startSec, now, elapsed] :
       {Row{1000, 1001.4, 0}, Row{1000, 1001.5, 1}, Row{2000, 1000, 0},
        Row{-500'000'000'000'000'000, 9e18, Limits::max()}}) {
    const RawProcess raw{7, 1, startSec, 500'000, "pts/3\t", UINT64_MAX, std::string(300, 'x')};
    EXPECT_EQ(makeProcessSample(raw, at(now)),
              ProcessSample(7, 1, "pts/3", at(static_cast<double>(startSec) + 0.5), elapsed, -1,
                            std::string(256, 'x')));
  }
}

TEST(ProcessKill, SignalsWhatTheListingAuthorizes) {
  constexpr ProcessStartTime start{1'700'000'000, 250'000};
  constexpr double listedAt = 1'700'000'100;
  ScriptedKernel kernel;
  ProvenanceCache cache{std::chrono::seconds{60}};
  const auto kill = [&](double now, Signal signal = Signal::terminate) {
    kernel.wallClock = [now] { return at(now); };
    return killProcess({.pid = ProcessID{100}, .signal = signal}, kernel, cache);
  };
  const KillResult sent{.succeeded = true};
  const KillResult refused{false,
                           "Not authorized: process was not in a recent listing, or has since "
                           "changed identity (B3)."};
  kernel.startTimes[100] = start;
  EXPECT_EQ(kill(listedAt), refused) << "nothing was listed";

  struct Row {
    const char* name;
    double now;
    std::vector<ProcessIdentity> listed;
    std::map<std::int32_t, ProcessStartTime> running;
    bool allowed = false;
  };
  const ProcessIdentity own{100, start.startSec, start.startUSec};
  const ProcessIdentity later{100, start.startSec + 1, start.startUSec};
  const std::map running{std::pair{100, start}};
  const Row rows[] = {
      {"exactly 60 seconds old", listedAt + 60, {own}, running, true},
      {"more than 60 seconds old", listedAt + 60.001, {own}, running},
      {"the clock was set back", listedAt - 0.001, {own}, running},
      {"the process is gone", listedAt, {own}, {}},
      {"another second", listedAt, {own}, {{100, {later.startSec, start.startUSec}}}},
      {"another microsecond", listedAt, {own}, {{100, {start.startSec, start.startUSec + 1}}}},
      {"not in the latest listing", listedAt, {{101, start.startSec, start.startUSec}}, running},
      {"of two with one pid the first counts", listedAt, {later, own}, running},
      {"at the moment of the listing", listedAt, {own}, running, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    kernel.startTimes = row.running;
    kernel.signals.clear();
    cache.record(row.listed, at(listedAt));
    EXPECT_EQ(kill(row.now), row.allowed ? sent : refused);
    EXPECT_EQ(kernel.signals.size(), row.allowed ? 1U : 0U);
    EXPECT_EQ(kill(row.now), row.allowed ? sent : refused) << "asking changes nothing";
  }

  kernel.signals.clear();
  for (const Signal signal : allSignals) EXPECT_EQ(kill(listedAt, signal), sent);
  EXPECT_EQ(kernel.signals,
            (std::vector<std::pair<std::int32_t, std::int32_t>>{{100, 2}, {100, 9}, {100, 15}}));
  kernel.signalError = EPERM;
  EXPECT_EQ(kill(listedAt), (KillResult{false, "Operation not permitted"}));
}

/// The same socket with one field changed.
template <class Field>
SocketInfo with(SocketInfo info, Field SocketInfo::* field, Field value) {
  info.*field = value;
  return info;
}

TEST(ListeningPorts, ListsByProcessThenDescriptorAndEachRowOnce) {
  const SocketInfo tcp = tcpListener(0xabcd0000U | htons(80));
  const SocketInfo udp = udpSocket(htons(53));
  const std::array<std::uint8_t, 16> mapped{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 127, 0, 0, 1};
  constexpr std::uint8_t neither = 0, ipv6 = SocketInfo::ipv6, both = SocketInfo::ipv4 | ipv6;
  const SocketInfo mappedUDP = with(udp, &SocketInfo::localAddress, mapped);
  ScriptedKernel kernel;
  kernel.holders = {
      {50, "server", {tcp, udp, mappedUDP, with(mappedUDP, &SocketInfo::versionFlags, ipv6)}},
      {20,
       "connected, without a port, raw, Unix domain",
       {with(tcp, &SocketInfo::tcpState, SocketInfo::TCPState::other), udpSocket(0),
        udpSocket(0x10000), with(udp, &SocketInfo::protocol, 255),
        with(tcp, &SocketInfo::kind, SocketInfo::Kind::other)}},
      {60, "", {tcpListener(0), with(tcp, &SocketInfo::versionFlags, neither)}},
      // The second is a duplicate, or another socket with the same port.
      {30, "tw\u202Eice\x1b\xff", {tcp, tcp, with(tcp, &SocketInfo::versionFlags, both)}}};
  const std::vector<PortSample> expected{{80, "tcp", 50, "server", "127.0.0.1"},
                                         {53, "udp", 50, "server", "127.0.0.1"},
                                         {53, "udp", 50, "server", "::ffff:127.0.0.1"},
                                         {0, "tcp", 60, "", "127.0.0.1"},
                                         {80, "tcp", 60, "", "*"},
                                         {80, "tcp", 30, "twice\uFFFD", "127.0.0.1"}};
  EXPECT_EQ(listListeningPorts(kernel), expected);
}

using Sizes = std::vector<std::size_t>;

TEST(KernelLists, ReadsTheTableAgainOnlyWhenItOutgrewTheBuffer) {
  using Record = std::array<char, 10>;
  /// One attempt: how sizing the table ends and what it says, and then how filling the buffer does.
  struct Attempt {
    int sizeError;
    std::size_t neededBytes;
    int fillError = 0;
    std::size_t filledBytes = 0;
  };
  const Attempt tooSmall{0, 30, ENOMEM};
  struct Row {
    const char* name;
    std::vector<Attempt> attempts;
    std::size_t records;
    Sizes rooms;  ///< Bytes offered to each fill.
  };
  const Row rows[] = {
      {"sizes are rounded down", {{0, 29, 0, 29}}, 2, {180}},
      {"never more than the room", {{0, 10, 0, 400}}, 17, {170}},
      {"ENOMEM while sizing is final", {{ENOMEM, 10}}, 0, {}},
      {"an empty table", {{0, 0}}, 0, {}},
      {"another failure is final", {{0, 10, EPERM}}, 0, {170}},
      {"the size is asked for afresh", {tooSmall, {0, 900, 0, 700}}, 70, {190, 1060}},
      {"the fifth ENOMEM is final", std::vector(5, tooSmall), 0, Sizes(5, 190)},
  };
  for (const Row& row : rows) {
    Sizes rooms;
    auto attempt = row.attempts.begin();
    const auto records = readTable<Record>([&](Record* buffer, std::size_t& bytes) {
      if (buffer == nullptr) {
        bytes = attempt->neededBytes;
        return attempt->sizeError;
      }
      rooms.push_back(bytes);
      bytes = attempt->filledBytes;
      return attempt++->fillError;
    });
    EXPECT_EQ(records.size(), row.records) << row.name;
    EXPECT_EQ(rooms, row.rooms) << row.name;
  }
}

TEST(KernelLists, SizesAListAndThenFillsIt) {
  struct Row {
    int needed, filled, room;  ///< No room when the fill must not be called.
    std::size_t records;
  };
  // Into the spare room, never more than the room, a part of a record, failing size, failing fill.
  for (const Row& row :
       {Row{8, 72, 72, 18}, {4, 400, 68, 17}, {7, 6, 68, 1}, {0, 4, 0, 0}, {8, -1, 72, 0}}) {
    int room = 0;
    const auto list = readList<std::int32_t>([&](std::int32_t* buffer, int bytes) {
      if (buffer == nullptr) return row.needed;
      room = bytes;
      std::iota(buffer, buffer + bytes / 4, 1);
      return row.filled;
    });
    EXPECT_EQ(room, row.room) << row.needed;
    EXPECT_EQ(list.size(), row.records) << row.needed;
    EXPECT_TRUE(list.empty() || list.back() == static_cast<std::int32_t>(row.records));
  }
}

}  // namespace
}  // namespace tessaloom
