#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "HelperCore/ListeningPorts.h"
#include "HelperCore/ProcessListing.h"
#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

/// An age at which the rest of a process counts, on a machine that ticks at least a hundred times a
/// second and is busy.
inline constexpr std::chrono::milliseconds settled{100};

/// Lists until a process that rests is remembered, which takes three listings.
template <class List>
void listUntilRemembered(const List& list) {
  for (int listing = 0; listing < 4; ++listing) {
    list();
    std::this_thread::sleep_for(settled * 3 / 2);
  }
}

/// The rows of some processes, in the order of the listing. Others come and go as they like.
inline std::vector<RawProcess> processesOf(Kernel& kernel, const std::vector<pid_t>& pids) {
  auto rows = listRawProcesses(kernel);
  std::erase_if(rows, [&](const RawProcess& row) { return !std::ranges::count(pids, row.pid); });
  return rows;
}

/// The same of their ports, each as in "tcp/127.0.0.1/8080/4242 program".
inline std::vector<std::string> portsOf(Kernel& kernel, const std::vector<pid_t>& pids) {
  std::vector<std::string> rows;
  for (const PortSample& row : listListeningPorts(kernel)) {
    if (std::ranges::count(pids, row.pid())) rows.push_back(row.id() + " " + row.processName());
  }
  return rows;
}

enum class SocketUse : std::uint8_t { tcpListening, tcpUnused, udpBound, udpUnbound, udpConnected };

/// A socket on an address of the machine itself and a port of the kernel's choice. None when there
/// is no IPv6 here.
inline FileDescriptor makeSocket(SocketUse use, const char* numericAddress = "127.0.0.1") {
  const bool tcp = use == SocketUse::tcpListening || use == SocketUse::tcpUnused;
  const bool ipv6 = std::string_view{numericAddress}.contains(':');
  sockaddr_in6 address{};
  address.sin6_family = ipv6 ? AF_INET6 : AF_INET;
  void* bytes = &reinterpret_cast<sockaddr_in&>(address).sin_addr;
  inet_pton(address.sin6_family, numericAddress, ipv6 ? &address.sin6_addr : bytes);
  const int type = (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC;
  FileDescriptor made{socket(address.sin6_family, type, 0)};
  auto* name = reinterpret_cast<sockaddr*>(&address);
  int failed = 0;
  if (use == SocketUse::tcpListening || use == SocketUse::udpBound) {
    failed |= bind(made.get(), name, sizeof address);
  }
  if (use == SocketUse::tcpListening) failed |= listen(made.get(), 1);
  if (use == SocketUse::udpConnected) {
    address.sin6_port = htons(9);  // At the same place for IPv4.
    failed |= connect(made.get(), name, sizeof address);
  }
  return failed == 0 ? std::move(made) : FileDescriptor{};
}

inline std::string portOf(const FileDescriptor& descriptor) {
  sockaddr_in6 address{};
  socklen_t length = sizeof address;
  getsockname(descriptor.get(), reinterpret_cast<sockaddr*>(&address), &length);
  return std::to_string(ntohs(address.sin6_port));
}

}  // namespace tessaloom
