#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <unordered_map>

#include "HelperCore/Kernel.h"

namespace tessaloom {

// Pure parsers of the two forms in which the kernel lists its internet sockets.

/// The listening TCP and the bound UDP sockets, by the inode that a descriptor's link shows.
using SocketsByInode = std::unordered_map<std::uint32_t, SocketInfo>;

/// Adds the sockets of /proc/net/tcp, tcp6, udp or udp6 (proc_net_tcp(5)); the width of a line's
/// address determines its family. `protocol` is IPPROTO_TCP or IPPROTO_UDP; of TCP only the
/// listening ones. Lines of another form add nothing.
void addSocketsOfText(std::string_view text, std::int32_t protocol, SocketsByInode& sockets);

/// How far a dump has come with one datagram of it.
enum class DumpState : std::uint8_t {
  more,         ///< Read on.
  complete,     ///< The last datagram.
  interrupted,  ///< The last one, but the kernel's table changed while it was walked.
  refused,      ///< There is no such dump here, or it failed on the way.
};

/// Adds the sockets of one datagram of a dump (sock_diag(7), inet_diag_msg).
DumpState addSocketsOfDump(std::span<const std::byte> datagram, std::int32_t protocol,
                           SocketsByInode& sockets);

}  // namespace tessaloom
