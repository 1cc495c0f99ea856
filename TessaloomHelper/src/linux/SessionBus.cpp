#include "linux/SessionBus.h"

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace tessaloom {

namespace {

// sd_bus_open_user() looks in the same places, but leaves no time to decline descriptors.
std::string sessionBusAddress() {
  if (const char* address = ::secure_getenv("DBUS_SESSION_BUS_ADDRESS")) return address;
  return "unix:path=/run/user/" + std::to_string(::getuid()) + "/bus";
}

int configureAndStart(sd_bus* bus) {
  const std::string address = sessionBusAddress();
  int result = sd_bus_set_address(bus, address.c_str());
  if (result >= 0) result = sd_bus_set_bus_client(bus, 1);
  if (result >= 0) result = sd_bus_negotiate_fds(bus, 0);
  return result >= 0 ? sd_bus_start(bus) : result;
}

}  // namespace

std::expected<BusHandle, int> openSessionBus() {
  sd_bus* created = nullptr;
  int result = sd_bus_new(&created);
  BusHandle bus(created);
  if (result >= 0) result = configureAndStart(bus.get());
  if (result < 0) return std::unexpected(-result);
  return bus;
}

}  // namespace tessaloom
