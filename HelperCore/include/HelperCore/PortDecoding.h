#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "HelperCore/Kernel.h"

namespace tessaloom {

/// What a socket is to the port listing; only `tcp` and `udp` give rows.
enum class SocketKind : std::uint8_t { tcp, udp, other };

/// "tcp", "udp" or "other".
std::string_view transportText(SocketKind kind);

/// Reads what the port listing needs out of a socket's description. Pure functions.
namespace PortDecoding {

/// `tcp` for a TCP socket that listens, on whatever port; `udp` for a UDP socket that is bound,
/// connected or not; `other` for everything else, which gives no row.
SocketKind classify(const SocketInfo& info);

/// The local port in host order.
std::uint16_t port(const SocketInfo& info);
}  // namespace PortDecoding

/// The local address as numeric text: IPv4 when that version is set, else IPv6, else "*".
std::string addressText(const SocketInfo& info);

}  // namespace tessaloom
