#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <systemd/sd-bus.h>

#include "HelperProtocol/linux/BusHandles.h"

namespace tessaloom {

class BusRequests;

/// A request made through BusRequests: for the reply to a call, or for the changes of a name's
/// owner. Its handler no longer runs once the request is destroyed or overwritten, which must
/// happen before the BusRequests that made it is destroyed.
class BusRequest {
 public:
  BusRequest() = default;
  BusRequest(BusRequest&& other) noexcept { *this = std::move(other); }
  BusRequest& operator=(BusRequest&& other) noexcept;
  ~BusRequest() { cancel(); }

 private:
  friend class BusRequests;
  BusRequest(BusRequests& requests, std::uint64_t id) : requests_(&requests), id_(id) {}
  void cancel();

  BusRequests* requests_ = nullptr;
  std::uint64_t id_ = 0;
};

/// Calls methods of other peers of the bus, and follows who owns a name. The sender of every reply
/// and signal that a handler gets has been checked.
///
/// Any peer of a bus can send a message that carries the serial of somebody else's call, or that
/// looks like a signal of the bus; serials are easy to guess. The library's own callbacks (of
/// sd_bus_call_async, sd_bus_add_match and all that build on them) look at the serial alone, and
/// the first message that carries it consumes the callback. No decision may depend on them. Only
/// the sender is written by the bus and cannot be forged. So calls are sent here without a callback
/// of the library, and replies are matched in a filter by serial and sender: a forged one is
/// dropped, and the call goes on waiting for the genuine one, however many forgeries come first.
///
/// The reply to a call is accepted when it comes from
/// - the peer itself, when the call was addressed to the bus or to a unique name;
/// - a unique name that the bus has reported as the owner of the well-known name that the call was
///   addressed to, at some time since the call was sent;
/// - the bus, as an error (no such name, its owner has disconnected, and so on).
///
/// For the thread that owns the connection. Handlers run inside sd_bus_process and may make and
/// destroy requests; an exception thrown by one is dropped. There are no timeouts, and when the
/// connection is lost, no handler runs.
class BusRequests {
 public:
  /// Gets the reply, which may be an error.
  using BusReplyHandler = std::function<void(sd_bus_message* reply)>;
  /// Gets the unique name of the new owner; empty when there is none anymore.
  using OwnerHandler = std::function<void(std::string_view owner)>;
  using Deadline = std::chrono::steady_clock::time_point;

  static constexpr const char* busName = "org.freedesktop.DBus";
  static constexpr const char* busPath = "/org/freedesktop/DBus";
  static constexpr const char* busInterface = "org.freedesktop.DBus";

  /// `bus` must outlive this. Throws std::system_error when the library lacks memory.
  explicit BusRequests(sd_bus* bus);
  ~BusRequests();
  BusRequests(const BusRequests&) = delete;
  BusRequests& operator=(const BusRequests&) = delete;

  /// Whether the bus itself sent a message.
  static bool isFromBus(sd_bus_message* message);

  /// Sends a call. The errno when it could not be sent.
  std::expected<BusRequest, int> send(sd_bus_message* call, BusReplyHandler handler);

  /// A call of a method of the bus itself, without arguments.
  std::expected<BusMessage, int> newBusCall(const char* method) const;

  /// Calls a method of the bus itself; `types` and `arguments` as for sd_bus_message_append().
  template <class... Arguments>
  std::expected<BusRequest, int> askBus(const char* method, BusReplyHandler handler,
                                        const char* types, Arguments... arguments) {
    const auto call = newBusCall(method);
    if (!call) return std::unexpected(call.error());
    const int result = sd_bus_message_append(call->get(), types, arguments...);
    if (result < 0) return std::unexpected(-result);
    return send(call->get(), std::move(handler));
  }

  /// Reports every change of a name's owner that the bus makes after this; `refused` gets the error
  /// when the bus declines to report.
  std::expected<BusRequest, int> watchOwner(const std::string& name, OwnerHandler changed,
                                            BusReplyHandler refused);

  /// Sends a call and handles what the connection receives until the reply is there, which may be
  /// an error. The errno when that failed, ETIMEDOUT past the deadline, ECANCELED as soon as the
  /// descriptor `interruption`, if any, can be read.
  std::expected<BusMessage, int> callAndWait(sd_bus_message* call, Deadline deadline,
                                             int interruption = -1);

 private:
  friend class BusRequest;

  struct Call {
    std::uint64_t id;
    std::uint64_t serial = 0;
    std::string destination;
    std::vector<std::string> repliers;  ///< Unique names, or the bus's.
    BusReplyHandler handler;
  };

  struct Watch {
    std::uint64_t id;
    std::string name;
    OwnerHandler handler;
    BusRequest matchReply;
  };

  /// A well-known name that calls were addressed to.
  struct Destination {
    std::string name;
    std::string owner;  ///< Empty while it has none or the bus has not said yet.
    BusRequest watch;
    BusRequest ownerReply;
  };

  std::expected<Destination*, int> follow(const std::string& name);
  void setOwner(Destination& destination, std::string_view owner);
  void fail(std::string destination, sd_bus_message* error);
  void cancel(std::uint64_t id);

  int wait(Deadline deadline, int interruption) const;
  void receive(sd_bus_message* message);
  void receiveReply(sd_bus_message* reply);
  void receiveOwnerChange(sd_bus_message* signal);
  static int onMessage(sd_bus_message* message, void* userdata, sd_bus_error* error);

  sd_bus* bus_;
  std::uint64_t lastId_ = 0;
  std::list<Call> calls_;
  std::list<Watch> watches_;
  std::list<Destination> destinations_;
  BusSlot filter_;
};

}  // namespace tessaloom
