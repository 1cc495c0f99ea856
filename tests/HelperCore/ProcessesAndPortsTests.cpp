#include <arpa/inet.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "HelperCore/ListeningPorts.h"
#include "HelperCore/PortDecoding.h"
#include "HelperCore/ProcessKill.h"
#include "HelperCore/ProcessListing.h"
#include "HelperCore/ProvenanceCache.h"
#include "HelperCore/ScriptedKernel.h"

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
        Row{Limits::min(), 9e18, Limits::max()}}) {
    const RawProcess raw{7, 1, startSec, 500'000, "pts/3\t", UINT64_MAX, std::string(300, 'x')};
    EXPECT_EQ(makeProcessSample(raw, at(now)),
              ProcessSample(7, 1, "pts/3", at(static_cast<double>(startSec) + 0.5), elapsed, -1,
                            std::string(256, 'x')));
  }
}

constexpr ProcessStartTime start{1'700'000'000, 250'000};
constexpr double listedAt = 1'700'000'100;

ProcessIdentity identity(std::int32_t pid, ProcessStartTime when = start) {
  return {.pid = pid, .startSec = when.startSec, .startUSec = when.startUSec};
}

TEST(ProcessKill, SignalsWhatTheListingAuthorizes) {
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
  const std::vector own{identity(100)};
  const ProcessStartTime laterSecond{start.startSec + 1, start.startUSec};
  const ProcessStartTime laterMicrosecond{start.startSec, start.startUSec + 1};
  const Row rows[] = {
      {"at the moment of the listing", listedAt, own, {{100, start}}, true},
      {"exactly 60 seconds old", listedAt + 60, own, {{100, start}}, true},
      {"more than 60 seconds old", listedAt + 60.001, own, {{100, start}}},
      {"the clock was set back", listedAt - 0.001, own, {{100, start}}},
      {"the process is gone", listedAt, own, {}},
      {"another second", listedAt, own, {{100, laterSecond}}},
      {"another microsecond", listedAt, own, {{100, laterMicrosecond}}},
      {"not in the latest listing", listedAt, {identity(101)}, {{100, start}}},
      {"the latest listing is empty", listedAt, {}, {{100, start}}},
      {"the first of two with one pid counts",
       listedAt,
       {identity(100), identity(100, laterSecond)},
       {{100, start}},
       true},
      {"the second of two does not",
       listedAt,
       {identity(100, laterSecond), identity(100)},
       {{100, start}}},
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
  cache.record(own, at(listedAt));
  for (const Signal signal : allSignals) EXPECT_EQ(kill(listedAt, signal), sent);
  EXPECT_EQ(kernel.signals,
            (std::vector<std::pair<std::int32_t, std::int32_t>>{{100, 2}, {100, 9}, {100, 15}}));
  kernel.signalError = EPERM;
  EXPECT_EQ(kill(listedAt), (KillResult{false, "Operation not permitted"}));
}

TEST(PortDecoding, TellsWhichSocketsGiveARow) {
  const std::uint32_t port = htons(8080);
  SocketInfo connected = tcpListener(port);
  connected.tcpState = SocketInfo::TCPState::other;
  SocketInfo raw = udpSocket(port);
  raw.protocol = 255;
  SocketInfo unixDomain = udpSocket(port);
  unixDomain.kind = SocketInfo::Kind::other;
  for (const auto& none : {connected, udpSocket(0), udpSocket(0x10000), raw, unixDomain}) {
    EXPECT_EQ(PortDecoding::classify(none), SocketKind::other);
  }
  EXPECT_EQ(PortDecoding::port(tcpListener(0xabcd0000U | port)), 8080);
}

TEST(PortDecoding, WritesAddresses) {
  using Address = std::array<std::uint8_t, 16>;
  const auto text = [](int flags, const Address& address) {
    SocketInfo info;
    info.versionFlags = static_cast<std::uint8_t>(flags);
    info.localAddress = address;
    return addressText(info);
  };
  const Address mapped{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 127, 0, 0, 1};
  EXPECT_EQ(text(SocketInfo::ipv4, {}), "0.0.0.0");
  EXPECT_EQ(text(SocketInfo::ipv4 | SocketInfo::ipv6, mapped), "127.0.0.1");
  EXPECT_EQ(text(SocketInfo::ipv6, {}), "::");
  EXPECT_EQ(text(SocketInfo::ipv6, mapped), "::ffff:127.0.0.1");
  EXPECT_EQ(text(0, mapped), "*");
}

TEST(ListeningPorts, ListsByProcessThenDescriptorAndEachRowOnce) {
  ScriptedKernel kernel;
  kernel.holders = {
      {50, "server", {tcpListener(htons(80)), udpSocket(htons(53))}},
      {20, "quiet", {}},
      {60, "", {tcpListener(0)}},
      {30,
       "tw\u202Eice\x1b\xff",
       // The second is a duplicate, or another socket with the same port.
       {tcpListener(htons(80)), tcpListener(htons(80)), udpSocket(0), tcpListener(htons(81))}},
  };
  const std::vector<PortSample> expected{{80, "tcp", 50, "server", "127.0.0.1"},
                                         {53, "udp", 50, "server", "127.0.0.1"},
                                         {0, "tcp", 60, "", "127.0.0.1"},
                                         {80, "tcp", 30, "twice\uFFFD", "127.0.0.1"},
                                         {81, "tcp", 30, "twice\uFFFD", "127.0.0.1"}};
  EXPECT_EQ(listListeningPorts(kernel), expected);
}

}  // namespace
}  // namespace tessaloom
