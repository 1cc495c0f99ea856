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
#include "linux/SocketParser.h"

namespace tessaloom {
namespace {

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
      line("0000000000000000FFFF00000100007F:0017", "0A", "4") + line("0100007F:1F92", "0A", "");
  SocketsByInode sockets;
  addSocketsOfText(tcp, InternetTransport::tcp, sockets);
  addSocketsOfText(line("3500007F:0035", "07", "5"), InternetTransport::udp, sockets);
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
  EXPECT_EQ(addSocketsOfDump(datagram, InternetTransport::tcp, sockets), DumpState::more);
  EXPECT_EQ(sockets.size(), 2U);
  EXPECT_EQ(describe(sockets, 1), "tcp 127.0.0.1 8080");
  EXPECT_EQ(describe(sockets, 2), "tcp fe80:: 8080");

  // A datagram may end anywhere.
  for (std::size_t length = 0; length < datagram.size(); ++length) {
    SocketsByInode cut;
    addSocketsOfDump(
        Datagram(datagram.begin(), datagram.begin() + static_cast<std::ptrdiff_t>(length)),
        InternetTransport::tcp, cut);
    EXPECT_LE(cut.size(), 2U);
  }
}

TEST(SocketParser, TellsHowADumpEnds) {
  SocketsByInode sockets;
  const std::int32_t noHandler = -ENOENT, noError = 0;
  const std::pair<Datagram, DumpState> rows[] = {
      {with({}, NLMSG_ERROR), DumpState::refused},
      {with({}, NLMSG_DONE, {}, NLM_F_DUMP_INTR), DumpState::interrupted},
      {with({}, NLMSG_DONE, bytesOf(noHandler)), DumpState::refused},
      {with({}, NLMSG_DONE, bytesOf(noError)), DumpState::complete},
      {with(withSocket({}, AF_INET, TCP_ESTABLISHED, 4), NLMSG_DONE), DumpState::complete}};
  for (const auto& [datagram, state] : rows) {
    EXPECT_EQ(addSocketsOfDump(datagram, InternetTransport::udp, sockets), state);
  }
  EXPECT_EQ(describe(sockets, 4), "udp 127.0.0.1 8080");
}

}  // namespace
}  // namespace tessaloom
