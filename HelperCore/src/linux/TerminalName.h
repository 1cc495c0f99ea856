#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace tessaloom {

/// The two halves of a device number as the kernel packs them into 32 bits (include/linux/kdev_t.h,
/// new_encode_dev).
struct DeviceNumber {
  std::uint32_t major;
  std::uint32_t minor;
};
DeviceNumber deviceNumber(std::uint32_t encoded);

/// The name of a terminal by its number alone (Documentation/admin-guide/devices.txt): pts/3, tty1,
/// ttyS0. nullopt for other kinds of terminals.
std::optional<std::string> wellKnownTerminalName(DeviceNumber device);

/// The name of the controlling terminal `encoded` of a process, without a directory; empty for
/// none, or when the system has no name for it.
std::string terminalName(std::uint32_t encoded);

}  // namespace tessaloom
