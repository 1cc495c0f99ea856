#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "HelperCore/ListeningPorts.h"
#include "HelperCore/ProcessListing.h"
#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

/// An age at which the rest of a process counts, on a machine that ticks at least a hundred times a
/// second and is busy.
inline constexpr std::chrono::milliseconds settled{100};

/// How GoogleTest shows a row.
inline void PrintTo(const PortSample& row, std::ostream* out) {
  *out << row.id() << " " << row.processName();
}
inline void PrintTo(const RawProcess& row, std::ostream* out) {
  *out << row.pid << " of " << row.parentPID << " " << row.tty.value_or("-") << " " << row.command;
}

/// The rows of some processes, in the order of the listing. Others come and go as they like.
inline std::vector<RawProcess> processesOf(Kernel& kernel, const std::vector<pid_t>& pids) {
  auto rows = listRawProcesses(kernel);
  std::erase_if(rows, [&](const RawProcess& row) { return !std::ranges::count(pids, row.pid); });
  return rows;
}
inline std::vector<PortSample> portsOf(Kernel& kernel, const std::vector<pid_t>& pids) {
  auto rows = listListeningPorts(kernel);
  std::erase_if(rows, [&](const PortSample& row) { return !std::ranges::count(pids, row.pid()); });
  return rows;
}

enum class SocketUse : std::uint8_t { tcpListening, tcpUnused, udpBound, udpUnbound, udpConnected };

/// A socket on an address of the machine itself; port 0 is one of the kernel's choice. None when
/// there is no IPv6 here.
inline FileDescriptor makeSocket(SocketUse use, const char* numericAddress = "127.0.0.1",
                                 std::int64_t port = 0) {
  const bool tcp = use == SocketUse::tcpListening || use == SocketUse::tcpUnused;
  const bool ipv6 = std::string_view{numericAddress}.contains(':');
  sockaddr_in6 address{};
  address.sin6_family = ipv6 ? AF_INET6 : AF_INET;
  address.sin6_port = htons(static_cast<std::uint16_t>(port));  // At the same place for IPv4.
  void* bytes = &reinterpret_cast<sockaddr_in&>(address).sin_addr;
  if (ipv6) bytes = &address.sin6_addr;
  inet_pton(address.sin6_family, numericAddress, bytes);
  FileDescriptor made{
      socket(address.sin6_family, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0)};
  const int on = 1;
  setsockopt(made.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
  auto* name = reinterpret_cast<sockaddr*>(&address);
  int failed = 0;
  if (use == SocketUse::tcpListening || use == SocketUse::udpBound) {
    failed |= bind(made.get(), name, sizeof address);
  }
  if (use == SocketUse::tcpListening) failed |= listen(made.get(), 1);
  if (use == SocketUse::udpConnected) {
    address.sin6_port = htons(9);
    failed |= connect(made.get(), name, sizeof address);
  }
  return failed == 0 ? std::move(made) : FileDescriptor{};
}

inline std::int64_t portOf(const FileDescriptor& descriptor) {
  sockaddr_in6 address{};
  socklen_t length = sizeof address;
  getsockname(descriptor.get(), reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin6_port);
}

}  // namespace tessaloom
