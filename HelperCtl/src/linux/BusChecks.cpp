#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <expected>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "Console.h"
#include "DoctorChecks.h"
#include "HelperProtocol/HelperConstants.h"
#include "HelperProtocol/linux/BusHandles.h"
#include "HelperProtocol/linux/BusRequests.h"
#include "HelperProtocol/linux/SessionBus.h"
#include "TLFoundation/ErrnoText.h"
#include "TLFoundation/linux/ExecutablePath.h"
#include "Transport.h"

namespace tessaloom {
namespace {

using Console::safeLine;
using enum Check::Outcome;

constexpr std::chrono::seconds answerTimeLimit{5};
constexpr const char* helperFile = "tessaloom-helper";

/// What is asked of the bus itself.
class BusQuestions {
 public:
  explicit BusQuestions(BusHandle bus) : bus_(std::move(bus)), requests_(bus_.get()) {}

  /// The reply, or the errno: ETIMEDOUT if the bus does not answer, EBADMSG for an error.
  std::expected<BusMessage, int> ask(const char* member,
                                     const std::optional<std::string>& argument = std::nullopt) {
    const auto call = requests_.newBusCall(member);
    if (!call) return std::unexpected(call.error());
    const int result = argument ? sd_bus_message_append(call->get(), "s", argument->c_str()) : 0;
    if (result < 0) return std::unexpected(-result);
    auto reply =
        requests_.callAndWait(call->get(), std::chrono::steady_clock::now() + answerTimeLimit);
    if (reply && sd_bus_message_is_method_error(reply->get(), nullptr) > 0) {
      return std::unexpected(EBADMSG);
    }
    return reply;
  }

  /// A number that the bus reports about the owner of a name.
  std::optional<std::uint32_t> number(const char* member, std::string_view name) {
    const auto reply = ask(member, std::string(name));
    std::uint32_t value = 0;
    if (!reply || sd_bus_message_read(reply->get(), "u", &value) <= 0) return std::nullopt;
    return value;
  }

  /// The user that the bus runs as (unix(7), SO_PEERCRED).
  std::optional<uid_t> owner() const {
    struct ucred credentials{};
    socklen_t size = sizeof credentials;
    const int descriptor = sd_bus_get_fd(bus_.get());
    if (::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
      return std::nullopt;
    }
    return credentials.uid;
  }

  bool canStartHelper() {
    const auto reply = ask("ListActivatableNames");
    if (!reply || sd_bus_message_enter_container(reply->get(), 'a', "s") <= 0) return false;
    const char* name = nullptr;
    while (sd_bus_message_read(reply->get(), "s", &name) > 0) {
      if (name == HelperConstants::machServiceName) return true;
    }
    return false;
  }

 private:
  BusHandle bus_;
  BusRequests requests_;
};

/// Whether another file, or none, is where the process was started from.
bool isReplaced(pid_t process, const std::filesystem::path& executable) {
  std::error_code error;
  return !std::filesystem::equivalent("/proc/" + std::to_string(process) + "/exe", executable,
                                      error);
}

/// Whether a signal or a debugger has stopped the process (proc(5), the state in /proc/PID/status).
bool isStopped(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("State:"))
      return line.find_first_of("Tt", 6) == line.find_first_not_of(" \t", 6);
  }
  return false;
}

std::string userName(std::uint32_t uid) {
  const struct passwd* entry = getpwuid(uid);  // NOLINT(concurrency-mt-unsafe): one thread.
  return entry != nullptr ? safeLine(entry->pw_name) : "user " + std::to_string(uid);
}

std::optional<Check> checkSandbox() {
  if (::access("/.flatpak-info", F_OK) != 0) return std::nullopt;
  return Check{bad, "sandbox",
               "this program runs in a sandbox, where the helper accepts only the editor",
               "Run it outside: flatpak-spawn --host tessaloom-helperctl doctor. An editor in a "
               "sandbox needs --talk-name=" +
                   std::string(HelperConstants::machServiceName)};
}

/// A bus that belongs to another user, as under sudo: it refuses this program.
std::optional<Check> checkBusOwner(const BusQuestions& bus) {
  const auto owner = bus.owner();
  if (!owner || *owner == ::geteuid()) return std::nullopt;
  return Check{
      bad, "session bus",
      "it belongs to " + userName(*owner) + ", but this program runs as " + userName(::geteuid()),
      "Run this program as " + userName(*owner) + ", without sudo."};
}

Check checkRunningHelper(pid_t pid) {
  const std::string number = std::to_string(pid);
  const auto helper = executablePath(pid).value_or(std::filesystem::path());
  const auto self = ownExecutablePath().value_or(std::filesystem::path());
  const std::string path = safeLine(helper.string());
  // The bus counts processes as its own container does, which need not be this program's.
  if (helper.empty()) {
    return {notice, "helper",
            "running as process " + number + ", which cannot be examined from here",
            "If this is a container, run doctor outside it."};
  }
  if (helper.filename() != helperFile) {
    return {bad, "helper",
            "its name on the bus belongs to another program, process " + number + ", " + path,
            "End that program. If the bus is in another container, run doctor there."};
  }
  if (isStopped(pid)) {
    return {bad, "helper", "process " + number + " is stopped, so it does not answer",
            "Let it continue: kill -CONT " + number};
  }
  Check check{good, "helper", "running as process " + number + ", " + path};
  if (helper.parent_path() != self.parent_path()) {
    check.outcome = notice;
    check.remedy = "This program is in another directory (" +
                   safeLine(self.parent_path().string()) +
                   "), so the helper will not accept it. Use the one beside the helper.";
  } else if (isReplaced(pid, helper)) {
    check.outcome = notice;
    check.finding += ", which has been replaced since";
    check.remedy = "To let the old one exit when idle: tessaloom-helperctl freshness";
  }
  return check;
}

std::optional<pid_t> helperProcess(BusQuestions& bus) {
  const auto pid = bus.number("GetConnectionUnixProcessID", HelperConstants::machServiceName);
  return pid ? std::optional(static_cast<pid_t>(*pid)) : std::nullopt;
}

}  // namespace

std::vector<Check> checkWayToHelper() {
  if (const auto sandbox = checkSandbox()) return {*sandbox};
  if (const auto transport = openTransport(); !transport) {
    return {{bad, "session bus", safeLine(transport.error().message), transport.error().advice}};
  }
  auto opened = openSessionBus();
  if (!opened) return {{bad, "session bus", errnoText(opened.error())}};
  BusQuestions bus(*std::move(opened));
  if (const auto owner = checkBusOwner(bus)) return {*owner};
  if (const auto reply = bus.ask("GetId"); !reply) {
    return {
        {bad, "session bus",
         reply.error() == ETIMEDOUT
             ? "it did not answer within " + std::to_string(answerTimeLimit.count()) + " seconds"
             : safeLine(sessionBusAddress()) + ": " + errnoText(reply.error()),
         "Check that a bus runs there: dbus-send --session --print-reply "
         "--dest=org.freedesktop.DBus / org.freedesktop.DBus.GetId"}};
  }
  std::vector<Check> checks{{good, "session bus", "it answers"}};
  const bool canStart = bus.canStartHelper();
  if (const auto pid = helperProcess(bus)) {
    checks.push_back(checkRunningHelper(*pid));
    if (!canStart) {
      checks.push_back({notice, "activation", "the bus cannot start the helper on demand",
                        "Install the package, so that the helper starts when it is needed."});
    }
  } else if (canStart) {
    checks.push_back({good, "helper", "not running; the bus starts it on demand"});
  } else {
    checks.push_back({bad, "helper", "not running, and the bus cannot start it",
                      "Install the package, or start tessaloom-helper by hand. A bus that was "
                      "already running reads a new activation file after: busctl --user call "
                      "org.freedesktop.DBus / org.freedesktop.DBus ReloadConfig"});
  }
  return checks;
}

std::string adviceForSilence() {
  auto opened = openSessionBus();
  if (!opened) return {};
  BusQuestions bus(*std::move(opened));
  const auto pid = helperProcess(bus);
  if (!pid) return "See the journal: journalctl --user";
  return "It runs as process " + std::to_string(*pid) +
         ". End it, and the next call starts a new one: kill " + std::to_string(*pid);
}

}  // namespace tessaloom
