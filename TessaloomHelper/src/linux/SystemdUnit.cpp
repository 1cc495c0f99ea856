#include "linux/SystemdUnit.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <expected>
#include <string>
#include <string_view>

#include "HelperProtocol/linux/BusHandles.h"
#include "HelperProtocol/linux/BusRequests.h"
#include "Log.h"
#include "TLFoundation/DescriptorShortage.h"
#include "TLFoundation/ErrnoText.h"
#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* unit = "com.brindlemoor.Tessaloom.helper.service";

struct Manager {
  sd_bus* bus;
  BusRequests requests;
  Clock::time_point deadline;
  int stopSignals;
  bool isInterrupted = false;
};

/// The manager's reply or the text of what went wrong. `append` adds the call's arguments.
template <class Append>
std::expected<BusMessage, std::string> callManager(Manager& manager, const char* method,
                                                   Append append) {
  sd_bus_message* created = nullptr;
  int result = sd_bus_message_new_method_call(manager.bus, &created, "org.freedesktop.systemd1",
                                              "/org/freedesktop/systemd1",
                                              "org.freedesktop.systemd1.Manager", method);
  const BusMessage call(created);
  // Without a manager on this bus there is nothing to register with; starting one is not the
  // helper's task.
  if (result >= 0) result = sd_bus_message_set_auto_start(call.get(), 0);
  if (result >= 0) result = append(call.get());
  if (result < 0) return std::unexpected(errnoText(-result));

  auto reply = manager.requests.callAndWait(call.get(), manager.deadline, manager.stopSignals);
  if (!reply) {
    manager.isInterrupted = reply.error() == ECANCELED;
    return std::unexpected(errnoText(reply.error()));
  }
  const sd_bus_error* error = sd_bus_message_get_error(reply->get());
  if (error == nullptr) return *std::move(reply);
  return std::unexpected(error->message != nullptr ? error->message : error->name);
}

std::expected<bool, std::string> isEnabled(Manager& manager) {
  const auto reply = callManager(manager, "GetUnitFileState", [](sd_bus_message* call) {
    return sd_bus_message_append(call, "s", unit);
  });
  if (!reply) return std::unexpected(reply.error());
  const char* state = nullptr;
  const int result = sd_bus_message_read(reply->get(), "s", &state);
  if (result < 0) return std::unexpected(errnoText(-result));
  return std::string_view(state).starts_with("enabled");  // or "enabled-runtime"
}

std::expected<bool, std::string> enable(Manager& manager) {
  const auto reply = callManager(manager, "EnableUnitFiles", [](sd_bus_message* call) {
    constexpr int forThisBootOnly = 0;
    constexpr int replacingLinks = 0;
    return sd_bus_message_append(call, "asbb", 1, unit, forThisBootOnly, replacingLinks);
  });
  if (!reply) return std::unexpected(reply.error());
  return true;
}

}  // namespace

void registerSystemdUnit(sd_bus* bus, std::chrono::microseconds limit, int stopSignals) {
  Manager manager{.bus = bus,
                  .requests = BusRequests(bus),
                  .deadline = Clock::now() + limit,
                  .stopSignals = stopSignals};
  auto enabled = isEnabled(manager);
  if (enabled && !*enabled) enabled = enable(manager);
  if (!enabled && !manager.isInterrupted)
    logLine("systemd user unit register failed", enabled.error());
}

// The library's sd_notify() waits until the manager reads.
bool notifyManager(std::string_view state) {
  const char* variable = ::secure_getenv("NOTIFY_SOCKET");
  const std::string_view name = variable != nullptr ? variable : "";
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  if (!name.starts_with('/') && !name.starts_with('@')) return true;
  if (name.size() > sizeof address.sun_path) return true;
  std::ranges::copy(name, address.sun_path);
  if (name.starts_with('@')) address.sun_path[0] = '\0';
  const FileDescriptor socket{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  if (!socket) return !isDescriptorShortage(errno);
  return ::sendto(socket.get(), state.data(), state.size(), MSG_DONTWAIT,
                  reinterpret_cast<const sockaddr*>(&address),
                  static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())) >= 0 ||
         errno != EAGAIN;
}

}  // namespace tessaloom
