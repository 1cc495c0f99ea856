#include "linux/TerminalName.h"

#include <unistd.h>

#include <array>
#include <string_view>

namespace tessaloom {

namespace {

/// The base name of the link /sys/dev/char/MAJOR:MINOR, which the kernel keeps for every character
/// device.
std::string registeredName(DeviceNumber device) {
  const std::string path =
      "/sys/dev/char/" + std::to_string(device.major) + ":" + std::to_string(device.minor);
  std::array<char, 512> target{};
  const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
  if (length <= 0) return {};
  const std::string_view link{target.data(), static_cast<std::size_t>(length)};
  return std::string{link.substr(link.rfind('/') + 1)};
}

}  // namespace

DeviceNumber deviceNumber(std::uint32_t encoded) {
  return {.major = (encoded >> 8) & 0xfff, .minor = (encoded & 0xff) | ((encoded >> 12) & 0xfff00)};
}

std::optional<std::string> wellKnownTerminalName(DeviceNumber device) {
  constexpr std::uint32_t firstPseudoTerminal = 136;
  constexpr std::uint32_t lastPseudoTerminal = 143;
  constexpr std::uint32_t consoles = 4;
  constexpr std::uint32_t firstSerialLine = 64;
  if (device.major >= firstPseudoTerminal && device.major <= lastPseudoTerminal) {
    return "pts/" + std::to_string((device.major - firstPseudoTerminal) * 256 + device.minor);
  }
  if (device.major != consoles) return std::nullopt;
  if (device.minor < firstSerialLine) return "tty" + std::to_string(device.minor);
  return "ttyS" + std::to_string(device.minor - firstSerialLine);
}

std::string terminalName(std::uint32_t encoded) {
  if (encoded == 0) return {};
  const DeviceNumber device = deviceNumber(encoded);
  auto name = wellKnownTerminalName(device);
  return name ? *name : registeredName(device);
}

}  // namespace tessaloom
