#include "BusAdvice.h"

#include <filesystem>
#include <system_error>

#include "Console.h"
#include "TLFoundation/linux/ExecutablePath.h"

namespace tessaloom {
namespace {

constexpr std::string_view busErrors = "org.freedesktop.DBus.Error.";

/// The helper's executable beside this program; empty if there is none.
std::string helperBesideThisProgram() {
  std::error_code error;
  const auto self = ownExecutablePath().value_or(std::filesystem::path());
  const auto helper = self.parent_path() / "tessaloom-helper";
  return std::filesystem::exists(helper, error) ? Console::shellWord(helper.string()) : "";
}

std::string adviceForFailedStart() {
  const std::string helper = helperBesideThisProgram();
  if (helper.empty()) {
    return "The helper could not be started: no tessaloom-helper is in this program's directory. "
           "Install the package again.";
  }
  return "The helper could not be started. See `systemctl --user status "
         "com.brindlemoor.Tessaloom.helper` or `journalctl --user`, or start it by hand in another "
         "terminal: " +
         helper;
}

/// `name` is without its prefix, of an error that the bus sent or this program made.
std::string adviceForBus(std::string_view name) {
  if (name == "ServiceUnknown" || name == "NameHasNoOwner") {
    return "The helper is not running and this bus cannot start it. Install the package, or start "
           "tessaloom-helper by hand in another terminal.";
  }
  if (name == "NoServer" || name == "FileNotFound") {
    return "Run this inside a desktop or user session (DBUS_SESSION_BUS_ADDRESS, or "
           "$XDG_RUNTIME_DIR/bus). To try it without one: dbus-run-session -- COMMAND";
  }
  if (name == "AccessDenied") return "The session bus's policy forbids the call.";
  if (name == "NoReply") {
    return "The helper exited before it answered. Try again; if it happens again, see "
           "`tessaloom-helperctl doctor`.";
  }
  return "Try again; if it happens again, see `tessaloom-helperctl doctor`.";
}

/// The same, of an error that the helper sent.
std::string adviceForHelper(std::string_view name) {
  if (name == "AccessDenied") {
    return "The helper accepts only programs that run as the same user, outside a sandbox and from "
           "the helper's own directory. Use the tessaloom-helperctl that was installed with it.";
  }
  if (name == "LimitsExceeded") return "Try again later; with many calls waiting, send fewer.";
  if (name == "Failed") return "Try again; the next call starts the helper.";
  if (name == "NoMemory")
    return "Try again when the system has more memory or fewer processes run.";
  if (name == "InvalidSignature") return differentVersionsAdvice;
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

std::string busAdvice(const CallError& error) {
  std::string_view name = error.name;
  const bool isBusError = name.starts_with(busErrors);
  if (isBusError) name.remove_prefix(busErrors.size());
  if (error.category == CallError::Category::failed) {
    return isBusError ? adviceForHelper(name) : std::string();
  }
  // What it sends on comes from the service manager.
  const bool isFailedStart = !isBusError || name.starts_with("Spawn.");
  return isFailedStart ? adviceForFailedStart() : adviceForBus(name);
}

}  // namespace tessaloom
