#include "HelperCore/PortDecoding.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <array>

namespace tessaloom {

namespace {

std::string formatAddress(int family, const std::uint8_t* address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (inet_ntop(family, address, text.data(), text.size()) == nullptr) return "*";
  return text.data();
}

}  // namespace

std::string_view transportText(SocketKind kind) {
  switch (kind) {
    case SocketKind::tcp:
      return "tcp";
    case SocketKind::udp:
      return "udp";
    case SocketKind::other:
      break;
  }
  return "other";
}

SocketKind PortDecoding::classify(const SocketInfo& info) {
  switch (info.kind) {
    case SocketInfo::Kind::tcp:
      return info.tcpState == SocketInfo::TCPState::listening ? SocketKind::tcp : SocketKind::other;
    case SocketInfo::Kind::internet:
      return info.protocol == IPPROTO_UDP && port(info) != 0 ? SocketKind::udp : SocketKind::other;
    case SocketInfo::Kind::other:
      break;
  }
  return SocketKind::other;
}

std::uint16_t PortDecoding::port(const SocketInfo& info) {
  return ntohs(static_cast<std::uint16_t>(info.localPort & 0xffff));
}

std::string addressText(const SocketInfo& info) {
  if ((info.versionFlags & SocketInfo::ipv4) != 0) {
    return formatAddress(AF_INET, info.localAddress.data() + 12);
  }
  if ((info.versionFlags & SocketInfo::ipv6) != 0) {
    return formatAddress(AF_INET6, info.localAddress.data());
  }
  return "*";
}

}  // namespace tessaloom
