#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "Checks.h"
#include "Console.h"
#include "HelperProtocol/HelperConstants.h"
#include "HelperProtocol/linux/BusHandles.h"
#include "TLFoundation/linux/ExecutablePath.h"
#include "Transport.h"

namespace tessaloom {
namespace {

constexpr const char* busName = "org.freedesktop.DBus";
constexpr const char* busPath = "/org/freedesktop/DBus";
constexpr std::uint64_t patience = 5'000'000;  // Microseconds.

/// Asks the bus itself; nothing when it answers with an error.
BusMessage askBus(sd_bus* bus, const char* member, const std::optional<std::string>& argument) {
  sd_bus_message* request = nullptr;
  if (sd_bus_message_new_method_call(bus, &request, busName, busPath, busName, member) < 0) {
    return nullptr;
  }
  const BusMessage owned(request);
  if (argument && sd_bus_message_append(request, "s", argument->c_str()) < 0) return nullptr;
  sd_bus_message* reply = nullptr;
  if (sd_bus_call(bus, request, patience, nullptr, &reply) < 0) return nullptr;
  return BusMessage(reply);
}

std::optional<pid_t> helperProcess(sd_bus* bus) {
  const BusMessage reply =
      askBus(bus, "GetConnectionUnixProcessID", std::string(HelperConstants::machServiceName));
  std::uint32_t pid = 0;
  if (!reply || sd_bus_message_read(reply.get(), "u", &pid) <= 0) return std::nullopt;
  return static_cast<pid_t>(pid);
}

bool isActivatable(sd_bus* bus) {
  const BusMessage reply = askBus(bus, "ListActivatableNames", std::nullopt);
  if (!reply || sd_bus_message_enter_container(reply.get(), 'a', "s") <= 0) return false;
  const char* name = nullptr;
  while (sd_bus_message_read(reply.get(), "s", &name) > 0) {
    if (name == HelperConstants::machServiceName) return true;
  }
  return false;
}

/// Whether another file, or none, stands where the process was started from.
bool isReplaced(pid_t process, const std::filesystem::path& executable) {
  std::error_code error;
  return !std::filesystem::equivalent("/proc/" + std::to_string(process) + "/exe", executable,
                                      error);
}

Check checkRunningHelper(pid_t pid) {
  const auto helper = executablePath(pid).value_or(std::filesystem::path());
  const auto self = ownExecutablePath().value_or(std::filesystem::path());
  Check check{
      Check::Outcome::good, "helper",
      "running as process " + std::to_string(pid) + ", " + console::safeLine(helper.string())};
  if (helper.parent_path() != self.parent_path()) {
    check.outcome = Check::Outcome::notice;
    check.remedy = "This program is in another folder (" +
                   console::safeLine(self.parent_path().string()) +
                   "), so the helper will not admit it. Use the one beside the helper.";
  } else if (isReplaced(pid, helper)) {
    check.outcome = Check::Outcome::notice;
    check.finding += ", which was replaced since";
    check.remedy = "Let the old one leave when it is idle: tessaloom-helperctl freshness";
  }
  return check;
}

}  // namespace

std::vector<Check> checkWayToHelper() {
  sd_bus* opened = nullptr;
  const auto transport = openTransport();
  const bool connected = transport && sd_bus_open_user(&opened) >= 0;
  const BusHandle bus(opened);
  if (!connected || !askBus(bus.get(), "GetId", std::nullopt)) {
    const std::string why = transport ? "The bus does not answer." : transport.error().message;
    return {{Check::Outcome::bad, "session bus", console::safeLine(why),
             transport ? "See that a session bus runs: echo $DBUS_SESSION_BUS_ADDRESS"
                       : transport.error().advice}};
  }
  std::vector<Check> checks{{Check::Outcome::good, "session bus", "it answers"}};
  const bool activatable = isActivatable(bus.get());
  if (const auto pid = helperProcess(bus.get())) {
    checks.push_back(checkRunningHelper(static_cast<pid_t>(*pid)));
    if (!activatable) {
      checks.push_back({Check::Outcome::notice, "activation",
                        "the bus cannot start the helper by itself",
                        "Install the package, so that the helper starts when it is needed."});
    }
  } else if (activatable) {
    checks.push_back({Check::Outcome::good, "helper", "not running; the bus starts it on demand"});
  } else {
    checks.push_back({Check::Outcome::bad, "helper",
                      "not running, and the bus does not know how to start it",
                      "Install the package, or start tessaloom-helper by hand. A bus that was "
                      "already running reads a new activation file after: busctl --user call "
                      "org.freedesktop.DBus / org.freedesktop.DBus ReloadConfig"});
  }
  return checks;
}

}  // namespace tessaloom
