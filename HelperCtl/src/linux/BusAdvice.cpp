#include "BusAdvice.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <system_error>

#include "Console.h"
#include "TLFoundation/linux/ExecutablePath.h"

namespace tessaloom {
namespace {

constexpr std::string_view busErrors = "org.freedesktop.DBus.Error.";

/// Of the helper: by the bus itself, or by the service manager on its behalf.
bool isFailedStart(std::string_view errorName) {
  return errorName.starts_with("org.freedesktop.DBus.Error.Spawn.") ||
         errorName.starts_with("org.freedesktop.systemd1.");
}

/// The executable of that name in this program's own folder, or just the name.
std::string besideThisProgram(std::string_view name) {
  std::error_code error;
  const auto self = ownExecutablePath().value_or(std::filesystem::path());
  const auto candidate = self.parent_path() / name;
  return Console::shellWord(std::filesystem::exists(candidate, error) ? candidate.string()
                                                                      : std::string(name));
}

std::string startByHand() {
  return "start it by hand in another terminal: " + besideThisProgram("tessaloom-helper");
}

std::string adviceForBusError(std::string_view name) {
  if (name == "ServiceUnknown" || name == "NameHasNoOwner") {
    return "The helper is not running and this bus cannot start it. Install the "
           "package, or " +
           startByHand();
  }
  if (name == "NoServer" || name == "FileNotFound") {
    return "Run this inside a desktop or user session (DBUS_SESSION_BUS_ADDRESS, or "
           "$XDG_RUNTIME_DIR/bus). To try it without one: dbus-run-session -- COMMAND";
  }
  if (name == "NoReply" || name == "Disconnected") {
    return "The helper or the bus disconnected during the call. Try again; if it happens again, "
           "see `tessaloom-helperctl doctor`.";
  }
  if (name == "AccessDenied") {
    return "The helper accepts only programs that run as the same user, outside a sandbox and from "
           "the helper's own folder. Use the tessaloom-helperctl that was installed with it.";
  }
  if (name == "LimitsExceeded") return "Try again later; with many calls waiting, send fewer.";
  if (name == "UnknownMethod" || name == "UnknownInterface" || name == "UnknownObject") {
    return "Check the method's name (`tessaloom-helperctl call --help` lists them). A helper older "
           "than this client may lack it: `tessaloom-helperctl freshness`.";
  }
  if (name == "InvalidArgs") {
    return "Some methods take a body and some do not: `tessaloom-helperctl call --help`.";
  }
  return {};
}

}  // namespace

bool isUnreachable(std::string_view errorName) {
  if (isFailedStart(errorName)) return true;
  if (!errorName.starts_with(busErrors)) return false;
  static constexpr std::array<std::string_view, 8> names{
      "ServiceUnknown", "NameHasNoOwner", "NoReply",  "Disconnected",
      "NoServer",       "Timeout",        "TimedOut", "FileNotFound"};
  return std::ranges::find(names, errorName.substr(busErrors.size())) != names.end();
}

std::string busAdvice(const CallError& error) {
  const std::string_view name = error.name;
  if (isFailedStart(name)) {
    return "The helper could not be started. See `systemctl --user status "
           "com.brindlemoor.Tessaloom.helper` or "
           "`journalctl --user`, or " +
           startByHand();
  }
  return name.starts_with(busErrors) ? adviceForBusError(name.substr(busErrors.size()))
                                     : std::string();
}

}  // namespace tessaloom
