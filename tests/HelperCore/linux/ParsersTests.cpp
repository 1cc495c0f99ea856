#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HelperCore/PortDecoding.h"
#include "linux/BootClock.h"
#include "linux/ProcParser.h"
#include "linux/SocketParser.h"
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
  EXPECT_FALSE(parseProcessStat("1 () S 1 1 1 0 -1 64 1 1 0 0 1 1 0 0 20 0 1 0 1")->isKernelThread);
  const std::string line = statLine("sh");
  for (std::size_t length = 0; length <= line.find("123456"); ++length) {
    EXPECT_FALSE(parseProcessStat(line.substr(0, length))) << "cut short: " << length;
  }
  const std::string rest = line.substr(line.find("S 7")) + "(";
  EXPECT_FALSE(parseProcessStat(rest) || parseProcessStat(")" + rest)) << "no name";
}

TEST(ProcParser, ReadsTheSmallFilesAndTheNamesOfLinksAndEntries) {
  EXPECT_EQ(parseResidentPages("2610 812 700 1 0 120 0\n"), 812U);
  EXPECT_EQ(parseResidentPages("2610"), std::nullopt);
  EXPECT_EQ(parseRunCounters("1500 20 3\n"), (RunCounters{1500, 3}));
  EXPECT_EQ(parseRunCounters("0 0 0\n"), std::nullopt) << "a kernel that does not count";
  EXPECT_FALSE(parseRunCounters("1500 20") || parseRunCounters("x 20 3"));
  EXPECT_EQ(parseDescriptorRoom("Name:\tFDSize:\nNgid:\t0\nFDSize:\t256\nGroups:\t\n"), 256);
  EXPECT_EQ(parseDescriptorRoom("Name:\tsh\n"), std::nullopt);
  EXPECT_EQ(parseInodeLink("socket", "socket:[4294967295]"), 4294967295U);
  for (const char* link :
       {"socket:[12", "socket:]", "socket:[]", "socket:[1x]", "socket1]", "packet:[1]"}) {
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
      {0x9003, ""},     {0xffffffff, ""}};
  for (const auto& [device, name] : names) EXPECT_EQ(terminalName(device), name) << device;
}

TEST(BootClock, AddsTicksToAWholeTickOfTheBootAndSleepsUntilOneIsOver) {
  const BootClock clock{std::chrono::milliseconds{1'700'000'000'019}, 100};
  EXPECT_EQ(clock.startTime(0), (ProcessStartTime{1'700'000'000, 10'000}));
  EXPECT_EQ(clock.startTime(360'000'099), (ProcessStartTime{1'703'600'001, 0}));

  // The wall clock has no part in it.
  const double now = clock.now().time_since_epoch().count();
  const auto latest = clock.startTime(clock.currentTick());
  EXPECT_NEAR(now, static_cast<double>(latest.startSec) + latest.startUSec / 1e6, 0.1);

  const BootClock ticking;
  const std::uint64_t tick = ticking.currentTick();
  ticking.sleepPast(tick);
  EXPECT_GT(ticking.currentTick(), tick);
}

/// "tcp 127.0.0.1 8080", or "other" for what gives no row.
std::string describe(const SocketsByInode& sockets, std::uint32_t inode) {
  auto found = sockets.find(inode);
  if (found == sockets.end()) return "absent";
  SocketKind kind = PortDecoding::classify(found->second);
  if (kind == SocketKind::other) return "other";
  return std::string{transportText(kind)} + " " + addressText(found->second) + " " +
         std::to_string(PortDecoding::port(found->second));
}

/// A line of /proc/PID/net/tcp and its like.
std::string line(const std::string& local, const std::string& state, const std::string& inode) {
  return "   0: " + local + " 00000000:0000 " + state +
         " 00000000:00000000 00:00000000 00000000  1000        0 " + inode + " 1 0 100 0 0 10 0\n";
}

TEST(SocketParser, ReadsTheTablesOfAMachineThatIsLittleEndian) {
  if (htons(1) == 1) GTEST_SKIP() << "the texts are those of a little-endian machine";
  const std::string tcp =
      "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
      "inode\n" +
      line("0100007F:1F90", "0A", "1") + line("0100007F:1F91", "01", "2") +
      line("00000000:0050", "0A", "0") + line("zz00007F:1F90", "0A", "3") +
      line("0000000000000000FFFF00000100007F:0017", "0A", "4") + line("0100007F:1F92", "0A", "x") +
      line("0100007F:1FZZ", "0A", "6") + line("0100007F00:1F93", "0A", "7");
  SocketsByInode sockets;
  addSocketsOfText(tcp, IPPROTO_TCP, sockets);
  const auto udp = line("3500007F:0036", "zz", "8") + line("3500007F:0035", "07", "5");
  addSocketsOfText(udp.substr(0, udp.size() - 1), IPPROTO_UDP, sockets);
  EXPECT_EQ(sockets.size(), 3U);
  EXPECT_EQ(describe(sockets, 1), "tcp 127.0.0.1 8080");
  EXPECT_EQ(describe(sockets, 4), "tcp ::ffff:127.0.0.1 23");
  EXPECT_EQ(describe(sockets, 5), "udp 127.0.0.53 53");
}

using Datagram = std::vector<std::byte>;

template <class Object>
std::span<const std::byte> bytesOf(const Object& object) {
  return std::as_bytes(std::span{&object, 1});
}

/// A datagram with one more message of a dump.
Datagram with(Datagram datagram, std::uint16_t type, std::span<const std::byte> body = {},
              std::uint16_t flags = 0) {
  const nlmsghdr header{static_cast<std::uint32_t>(sizeof header + body.size()), type, flags, 0, 0};
  std::ranges::copy(bytesOf(header), std::back_inserter(datagram));
  std::ranges::copy(body, std::back_inserter(datagram));
  datagram.resize(NLMSG_ALIGN(datagram.size()));
  return datagram;
}

Datagram withSocket(Datagram datagram, std::uint8_t family, std::uint8_t state,
                    std::uint32_t inode) {
  inet_diag_msg message{};
  message.idiag_family = family;
  message.idiag_state = state;
  message.id.idiag_sport = htons(8080);
  message.id.idiag_src[0] = htonl(family == AF_INET ? 0x7f000001 : 0xfe800000);
  message.idiag_inode = inode;
  return with(std::move(datagram), SOCK_DIAG_BY_FAMILY, bytesOf(message));
}

TEST(SocketParser, ReadsADump) {
  auto datagram = withSocket({}, AF_INET, TCP_LISTEN, 1);
  datagram = withSocket(datagram, AF_INET6, TCP_LISTEN, 2);
  datagram = withSocket(datagram, AF_INET, TCP_ESTABLISHED, 3);
  datagram = withSocket(datagram, AF_INET, TCP_LISTEN, 0);
  datagram = with(datagram, SOCK_DIAG_BY_FAMILY);  // Shorter than a socket's message.
  SocketsByInode sockets;
  EXPECT_EQ(addSocketsOfDump(datagram, IPPROTO_TCP, sockets), DumpState::more);
  EXPECT_EQ(sockets.size(), 2U);
  EXPECT_EQ(describe(sockets, 1), "tcp 127.0.0.1 8080");
  EXPECT_EQ(describe(sockets, 2), "tcp fe80:: 8080");

  // A datagram may end anywhere.
  for (std::size_t length = 0; length < datagram.size(); ++length) {
    SocketsByInode cut;
    addSocketsOfDump(std::span{datagram}.first(length), IPPROTO_TCP, cut);
    EXPECT_EQ(cut.size(), std::min(length / (sizeof(nlmsghdr) + sizeof(inet_diag_msg)), 2UL));
  }
}

TEST(SocketParser, ReportsHowADumpEnds) {
  SocketsByInode sockets;
  const std::int32_t noHandler = -ENOENT, noError = 0;
  const std::pair<Datagram, DumpState> rows[] = {
      {with({}, NLMSG_ERROR), DumpState::refused},
      {with({}, NLMSG_DONE, {}, NLM_F_DUMP_INTR), DumpState::interrupted},
      {with({}, NLMSG_DONE, bytesOf(noHandler)), DumpState::refused},
      {with({}, NLMSG_DONE, bytesOf(noError)), DumpState::complete},
      {with(withSocket({}, AF_INET, TCP_ESTABLISHED, 4), NLMSG_DONE), DumpState::complete}};
  for (const auto& [datagram, state] : rows) {
    EXPECT_EQ(addSocketsOfDump(datagram, IPPROTO_UDP, sockets), state);
  }
  EXPECT_EQ(describe(sockets, 4), "udp 127.0.0.1 8080");
}

}  // namespace
}  // namespace tessaloom
