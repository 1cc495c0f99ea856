#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
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

/// A datagram of a dump, put together message by message.
class Datagram {
 public:
  Datagram& add(std::uint16_t type, std::uint16_t flags = 0, std::span<const std::byte> body = {}) {
    const nlmsghdr header{.nlmsg_len = static_cast<std::uint32_t>(sizeof header + body.size()),
                          .nlmsg_type = type,
                          .nlmsg_flags = flags,
                          .nlmsg_seq = 0,
                          .nlmsg_pid = 0};
    std::ranges::copy(std::as_bytes(std::span{&header, 1}), std::back_inserter(bytes_));
    std::ranges::copy(body, std::back_inserter(bytes_));
    bytes_.resize(NLMSG_ALIGN(bytes_.size()));
    return *this;
  }
  Datagram& addSocket(const inet_diag_msg& message) {
    return add(20, 0, std::as_bytes(std::span{&message, 1}));
  }
  std::span<const std::byte> bytes() const { return bytes_; }

 private:
  std::vector<std::byte> bytes_;
};

inet_diag_msg diagMessage(std::uint8_t family, std::uint8_t state, std::uint32_t inode) {
  inet_diag_msg message{};
  message.idiag_family = family;
  message.idiag_state = state;
  message.id.idiag_sport = htons(8080);
  message.id.idiag_src[0] = htonl(family == AF_INET ? 0x7f000001 : 0xfe800000);
  message.idiag_inode = inode;
  return message;
}

TEST(SocketParser, ReadsADump) {
  Datagram datagram;
  datagram.addSocket(diagMessage(AF_INET, TCP_LISTEN, 1))
      .addSocket(diagMessage(AF_INET6, TCP_LISTEN, 2))
      .addSocket(diagMessage(AF_INET, TCP_ESTABLISHED, 3))
      .addSocket(diagMessage(AF_INET, TCP_LISTEN, 0))
      .add(20);  // Shorter than a socket's message.
  SocketsByInode sockets;
  EXPECT_EQ(addSocketsOfDump(datagram.bytes(), InternetTransport::tcp, sockets), DumpState::more);
  EXPECT_EQ(sockets.size(), 2U);
  EXPECT_EQ(describe(sockets, 1), "tcp 127.0.0.1 8080");
  EXPECT_EQ(describe(sockets, 2), "tcp fe80:: 8080");

  // A datagram may end anywhere.
  for (std::size_t length = 0; length < datagram.bytes().size(); ++length) {
    SocketsByInode cut;
    addSocketsOfDump(datagram.bytes().first(length), InternetTransport::tcp, cut);
    EXPECT_LE(cut.size(), 2U);
  }
}

TEST(SocketParser, TellsHowADumpEnds) {
  SocketsByInode sockets;
  auto state = [&](const Datagram& datagram) {
    return addSocketsOfDump(datagram.bytes(), InternetTransport::udp, sockets);
  };
  EXPECT_EQ(state(Datagram{}.add(NLMSG_ERROR)), DumpState::refused);
  EXPECT_EQ(state(Datagram{}.add(NLMSG_DONE, NLM_F_DUMP_INTR)), DumpState::interrupted);
  const std::int32_t noHandler = -ENOENT;
  const std::int32_t noError = 0;
  EXPECT_EQ(state(Datagram{}.add(NLMSG_DONE, 0, std::as_bytes(std::span{&noHandler, 1}))),
            DumpState::refused);
  EXPECT_EQ(state(Datagram{}.add(NLMSG_DONE, 0, std::as_bytes(std::span{&noError, 1}))),
            DumpState::complete);
  EXPECT_EQ(state(Datagram{}.addSocket(diagMessage(AF_INET, TCP_ESTABLISHED, 4)).add(NLMSG_DONE)),
            DumpState::complete);
  EXPECT_EQ(describe(sockets, 4), "udp 127.0.0.1 8080");
}

}  // namespace
}  // namespace tessaloom
