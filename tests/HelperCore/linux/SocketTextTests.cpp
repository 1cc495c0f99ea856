#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <netinet/tcp.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HelperCore/PortDecoding.h"
#include "linux/SocketText.h"

namespace tessaloom::linux_kernel {
namespace {

/// "tcp 127.0.0.1 8080", or "other" for what gives no row.
std::string describe(const SocketsByInode& sockets, std::uint64_t inode) {
  auto found = sockets.find(inode);
  if (found == sockets.end()) return "absent";
  SocketKind kind = PortDecoding::classify(found->second);
  if (kind == SocketKind::other) return "other";
  return std::string{transportText(kind)} + " " + addressText(found->second) + " " +
         std::to_string(PortDecoding::port(found->second));
}

TEST(SocketText, ReadsTheTablesOfAMachineThatIsLittleEndian) {
  if (htons(1) == 1) GTEST_SKIP() << "the texts are those of a little-endian machine";
  const std::string tcp =
      "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
      "inode\n"
      "   0: 0100007F:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000  1000        0 "
      "501 1 0000000000000000 100 0 0 10 0\n"
      "   1: 0100007F:1F91 0100007F:9C40 01 00000000:00000000 00:00000000 00000000  1000        0 "
      "502 1 0000000000000000 20 4 30 10 -1\n"
      "   2: 00000000:0050 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 "
      "0 1 0000000000000000 100 0 0 10 0\n"
      "   3: zz00007F:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000  1000        0 "
      "503 1\n"
      "   4: 0100007F:1F92 00000000:0000 0A";
  const std::string tcp6 =
      "   0: 00000000000000000000000001000000:0016 00000000000000000000000000000000:0000 0A "
      "00000000:00000000 00:00000000 00000000     0        0 601 1 0 100 0 0 10 0\n"
      "   1: 0000000000000000FFFF00000100007F:0017 00000000000000000000000000000000:0000 0A "
      "00000000:00000000 00:00000000 00000000     0        0 602 1 0 100 0 0 10 0\n";
  const std::string udp =
      " 1000: 3500007F:0035 00000000:0000 07 00000000:00000000 00:00000000 00000000   101        0 "
      "701 2 0000000000000000 0\n"
      " 1001: 3500007F:0036 0100007F:0035 01 00000000:00000000 00:00000000 00000000   101        0 "
      "702 2 0000000000000000 0\n";

  SocketsByInode sockets;
  addSocketsOfText(tcp, InternetTransport::tcp, sockets);
  addSocketsOfText(tcp6, InternetTransport::tcp, sockets);
  addSocketsOfText(udp, InternetTransport::udp, sockets);
  EXPECT_EQ(sockets.size(), 5U);
  EXPECT_EQ(describe(sockets, 501), "tcp 127.0.0.1 8080");
  EXPECT_EQ(describe(sockets, 601), "tcp ::1 22");
  EXPECT_EQ(describe(sockets, 602), "tcp ::ffff:127.0.0.1 23");
  EXPECT_EQ(describe(sockets, 701), "udp 127.0.0.53 53");
  EXPECT_EQ(describe(sockets, 702), "udp 127.0.0.53 54");
}

/// A datagram of a dump, put together message by message.
class Datagram {
 public:
  Datagram& add(std::uint16_t type, std::uint16_t flags = 0, std::span<const std::byte> body = {}) {
    nlmsghdr header{};
    header.nlmsg_len = static_cast<std::uint32_t>(sizeof header + body.size());
    header.nlmsg_type = type;
    header.nlmsg_flags = flags;
    append(&header, sizeof header);
    append(body.data(), body.size());
    bytes_.resize(NLMSG_ALIGN(bytes_.size()));
    return *this;
  }
  Datagram& addSocket(const inet_diag_msg& message, std::uint16_t flags = 0) {
    return add(20, flags, std::as_bytes(std::span{&message, 1}));
  }
  std::span<const std::byte> bytes() const { return bytes_; }

 private:
  void append(const void* data, std::size_t size) {
    if (size == 0) return;
    const auto* begin = static_cast<const std::byte*>(data);
    bytes_.insert(bytes_.end(), begin, begin + size);
  }
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

TEST(SocketText, ReadsADump) {
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

  Datagram connected;
  connected.addSocket(diagMessage(AF_INET, TCP_ESTABLISHED, 4)).add(NLMSG_DONE);
  EXPECT_EQ(addSocketsOfDump(connected.bytes(), InternetTransport::udp, sockets),
            DumpState::complete);
  EXPECT_EQ(describe(sockets, 4), "udp 127.0.0.1 8080");

  // A datagram may end anywhere.
  for (std::size_t length = 0; length < datagram.bytes().size(); ++length) {
    SocketsByInode cut;
    addSocketsOfDump(datagram.bytes().first(length), InternetTransport::tcp, cut);
    EXPECT_LE(cut.size(), 2U);
  }
}

TEST(SocketText, TellsHowADumpEnds) {
  SocketsByInode sockets;
  auto state = [&](const Datagram& datagram) {
    return addSocketsOfDump(datagram.bytes(), InternetTransport::tcp, sockets);
  };
  EXPECT_EQ(state(Datagram{}.add(NLMSG_ERROR)), DumpState::refused);
  EXPECT_EQ(state(Datagram{}.add(NLMSG_DONE)), DumpState::complete);
  EXPECT_EQ(state(Datagram{}.add(NLMSG_DONE, NLM_F_DUMP_INTR)), DumpState::interrupted);
}

}  // namespace
}  // namespace tessaloom::linux_kernel
