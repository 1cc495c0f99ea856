#include <arpa/inet.h>

#include <string>

#include <gtest/gtest.h>

#include "HelperCore/ListeningPorts.h"
#include "HelperCore/PortDecoding.h"
#include "HelperCore/ScriptedKernel.h"

namespace tessaloom {
namespace {

const std::uint32_t port8080 = htons(8080);

TEST(PortDecoding, TellsWhichSocketsGiveARowAndTheirPorts) {
  SocketInfo connected = tcpListener(port8080);
  connected.tcpState = SocketInfo::TCPState::other;
  SocketInfo raw = udpSocket(port8080);
  raw.protocol = 255;
  SocketInfo unixDomain = udpSocket(port8080);
  unixDomain.kind = SocketInfo::Kind::other;
  struct Row {
    const char* name;
    SocketInfo info;
    SocketKind kind;
  };
  const Row rows[] = {
      {"listening", tcpListener(port8080), SocketKind::tcp},
      {"listening on port 0", tcpListener(0), SocketKind::tcp},
      {"connected TCP", connected, SocketKind::other},
      {"bound UDP", udpSocket(port8080), SocketKind::udp},
      {"UDP without a port", udpSocket(0), SocketKind::other},
      {"UDP without a port, but with something above it", udpSocket(0x10000), SocketKind::other},
      {"raw", raw, SocketKind::other},
      {"Unix domain", unixDomain, SocketKind::other},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(PortDecoding::classify(row.info), row.kind);
  }
  EXPECT_EQ(PortDecoding::port(tcpListener(0xabcd0000U | htons(8080))), 8080);
}

TEST(PortDecoding, WritesAddresses) {
  constexpr auto both = SocketInfo::ipv4 | SocketInfo::ipv6;
  struct Row {
    const char* name;
    int flags;
    std::array<std::uint8_t, 16> address;
    const char* text;
  };
  const Row rows[] = {
      {"any IPv4", SocketInfo::ipv4, {}, "0.0.0.0"},
      {"IPv4 wins", both, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 10, 1, 2, 3}, "10.1.2.3"},
      {"any IPv6", SocketInfo::ipv6, {}, "::"},
      {"mapped",
       SocketInfo::ipv6,
       {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 127, 0, 0, 1},
       "::ffff:127.0.0.1"},
      {"neither", 0, {1}, "*"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    SocketInfo info;
    info.versionFlags = static_cast<std::uint8_t>(row.flags);
    info.localAddress = row.address;
    EXPECT_EQ(addressText(info), row.text);
  }
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
