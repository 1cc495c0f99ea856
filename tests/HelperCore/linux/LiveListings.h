#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "HelperCore/FileDescriptor.h"
#include "HelperCore/ListeningPorts.h"
#include "HelperCore/ProcessListing.h"

namespace tessaloom {

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

/// A socket on an address of the machine itself and a port of the kernel's choice.
inline FileDescriptor makeSocket(SocketUse use, int family = AF_INET, bool shared = false) {
  bool tcp = use == SocketUse::tcpListening || use == SocketUse::tcpUnused;
  FileDescriptor made{socket(family, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0)};
  int on = 1;
  if (shared) setsockopt(made.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
  sockaddr_storage address{};
  address.ss_family = static_cast<sa_family_t>(family);
  if (family == AF_INET) {
    reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  } else {
    reinterpret_cast<sockaddr_in6&>(address).sin6_addr = in6addr_loopback;
  }
  auto* name = reinterpret_cast<sockaddr*>(&address);
  int failed = 0;
  if (use == SocketUse::tcpListening || use == SocketUse::udpBound) {
    failed |= bind(made.get(), name, sizeof address);
  }
  if (use == SocketUse::tcpListening) failed |= listen(made.get(), 1);
  if (use == SocketUse::udpConnected) {
    auto& port = family == AF_INET ? reinterpret_cast<sockaddr_in&>(address).sin_port
                                   : reinterpret_cast<sockaddr_in6&>(address).sin6_port;
    port = htons(9);
    failed |= connect(made.get(), name, sizeof address);
  }
  return failed == 0 ? std::move(made) : FileDescriptor{};
}

inline std::int64_t portOf(const FileDescriptor& descriptor) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  getsockname(descriptor.get(), reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.ss_family == AF_INET ? reinterpret_cast<sockaddr_in&>(address).sin_port
                                            : reinterpret_cast<sockaddr_in6&>(address).sin6_port);
}

}  // namespace tessaloom
