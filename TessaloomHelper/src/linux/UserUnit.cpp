#include "linux/UserUnit.h"

#include <chrono>
#include <expected>
#include <string>
#include <string_view>

#include "HelperProtocol/linux/BusHandles.h"
#include "HelperProtocol/linux/BusRequests.h"
#include "Log.h"
#include "TLFoundation/ErrnoText.h"

namespace tessaloom {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* unit = "com.brindlemoor.Tessaloom.helper.service";

// The manager's reply or the text of what went wrong. `append` adds the call's arguments.
template <class Append>
std::expected<BusMessage, std::string> callManager(sd_bus* bus, BusRequests& requests,
                                                   Clock::time_point deadline, const char* method,
                                                   Append append) {
  sd_bus_message* created = nullptr;
  int result = sd_bus_message_new_method_call(bus, &created, "org.freedesktop.systemd1",
                                              "/org/freedesktop/systemd1",
                                              "org.freedesktop.systemd1.Manager", method);
  const BusMessage call(created);
  // Without a manager on this bus there is nothing to register with; starting one is not our part.
  if (result >= 0) result = sd_bus_message_set_auto_start(call.get(), 0);
  if (result >= 0) result = append(call.get());
  if (result < 0) return std::unexpected(errnoText(-result));

  auto reply = requests.callAndWait(call.get(), deadline);
  if (!reply) return std::unexpected(errnoText(reply.error()));
  const sd_bus_error* error = sd_bus_message_get_error(reply->get());
  if (error == nullptr) return *std::move(reply);
  return std::unexpected(error->message != nullptr ? error->message : error->name);
}

std::expected<bool, std::string> isEnabled(sd_bus* bus, BusRequests& requests,
                                           Clock::time_point deadline) {
  const auto reply =
      callManager(bus, requests, deadline, "GetUnitFileState",
                  [](sd_bus_message* call) { return sd_bus_message_append(call, "s", unit); });
  if (!reply) return std::unexpected(reply.error());
  const char* state = nullptr;
  const int result = sd_bus_message_read(reply->get(), "s", &state);
  if (result < 0) return std::unexpected(errnoText(-result));
  return std::string_view(state).starts_with("enabled");  // or "enabled-runtime"
}

std::expected<bool, std::string> enable(sd_bus* bus, BusRequests& requests,
                                        Clock::time_point deadline) {
  const auto reply =
      callManager(bus, requests, deadline, "EnableUnitFiles", [](sd_bus_message* call) {
        constexpr int forThisBootOnly = 0;
        constexpr int replacingLinks = 0;
        return sd_bus_message_append(call, "asbb", 1, unit, forThisBootOnly, replacingLinks);
      });
  if (!reply) return std::unexpected(reply.error());
  return true;
}

}  // namespace

void registerUserUnit(sd_bus* bus, std::chrono::microseconds limit) {
  const auto deadline = Clock::now() + limit;
  BusRequests requests(bus);
  auto enabled = isEnabled(bus, requests, deadline);
  if (enabled && !*enabled) enabled = enable(bus, requests, deadline);
  if (!enabled) logLine("systemd user unit register failed", enabled.error());
}

}  // namespace tessaloom
