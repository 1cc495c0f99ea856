// The least that a service on the bus can be: it answers one method with a constant. What the
// helper's calls cost beyond this is the helper's own.

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <systemd/sd-bus.h>

#include "BusNames.h"
#include "HelperProtocol/Methods.h"

using namespace tessaloom;

namespace {

int answer(sd_bus_message* call, void*, sd_bus_error*) {
  return sd_bus_reply_method_return(call, "x", std::int64_t{1});
}

constexpr const Method& echoed = methodNamed("ProtocolVersion");
constexpr sd_bus_vtable table[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD(echoed.name, "", echoed.result, answer, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int serve() {
  sd_bus* bus = nullptr;
  int result = sd_bus_open_user(&bus);
  if (result >= 0)
    result = sd_bus_add_object_vtable(bus, nullptr, HelperConstants::objectPath,
                                      HelperConstants::interfaceName, table, nullptr);
  if (result >= 0) result = sd_bus_request_name(bus, echoName, 0);
  while (result >= 0) {
    result = sd_bus_process(bus, nullptr);
    if (result == 0) result = sd_bus_wait(bus, UINT64_MAX);
  }
  return result;
}

}  // namespace

int main() {
  std::fprintf(stderr, "echo service: error %d\n", -serve());
  return EXIT_FAILURE;
}
