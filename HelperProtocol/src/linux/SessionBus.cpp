#include "HelperProtocol/linux/SessionBus.h"

#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace tessaloom {

namespace {

/// `path` as a value in a D-Bus address, where all but a few characters are written as their
/// hexadecimal codes.
std::string escaped(std::string_view path) {
  static constexpr std::string_view digits = "0123456789abcdef";
  static constexpr std::string_view plain =
      "-0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ_/\\.*";
  std::string text;
  for (const char character : path) {
    if (plain.find(character) != std::string_view::npos) {
      text += character;
      continue;
    }
    const auto byte = static_cast<unsigned char>(character);
    text.append({'%', digits[byte >> 4U], digits[byte & 15U]});
  }
  return text;
}

int configureAndStart(sd_bus* bus) {
  const std::string address = sessionBusAddress();
  int result = sd_bus_set_address(bus, address.c_str());
  if (result >= 0) result = sd_bus_set_bus_client(bus, 1);
  if (result >= 0) result = sd_bus_negotiate_fds(bus, 0);
  return result >= 0 ? sd_bus_start(bus) : result;
}

}  // namespace

std::filesystem::path userRuntimeDirectory() {
  const char* directory = ::secure_getenv("XDG_RUNTIME_DIR");
  if (directory != nullptr && *directory == '/') return directory;
  return "/run/user/" + std::to_string(::getuid());
}

// sd_bus_open_user() looks in these two places only, and gives no chance to decline descriptors.
std::string sessionBusAddress() {
  const char* address = ::secure_getenv("DBUS_SESSION_BUS_ADDRESS");
  if (address != nullptr && *address != '\0') return address;
  return "unix:path=" + escaped(userRuntimeDirectory().native()) + "/bus";
}

std::expected<BusHandle, int> openSessionBus() {
  sd_bus* created = nullptr;
  int result = sd_bus_new(&created);
  BusHandle bus(created);
  if (result >= 0) result = configureAndStart(bus.get());
  if (result < 0) return std::unexpected(-result);
  return bus;
}

}  // namespace tessaloom
