#include <cerrno>
#include <deque>
#include <list>
#include <string_view>
#include <utility>

#include "BusAdvice.h"
#include "HelperProtocol/HelperConstants.h"
#include "HelperProtocol/linux/BusError.h"
#include "HelperProtocol/linux/BusHandles.h"
#include "TLFoundation/ErrnoText.h"
#include "Transport.h"

namespace tessaloom {
namespace {

constexpr const char* objectPath = "/com/brindlemoor/Tessaloom/Helper";
constexpr const char* interfaceName = "com.brindlemoor.Tessaloom.HelperServicing";

/// A receiver that uses sd-bus drops its connection at 64 MiB; no request comes near that.
constexpr std::size_t maximumBodyBytes = std::size_t{32} * 1024 * 1024;

CallError makeError(CallError::Category category, std::string name, std::string message) {
  CallError error{category, std::move(name), std::move(message)};
  error.advice = busAdvice(error);
  return error;
}

CallError readError(sd_bus_message* reply) {
  const sd_bus_error* received = sd_bus_message_get_error(reply);
  const std::string name = received->name != nullptr ? received->name : "";
  const std::string message = received->message != nullptr ? received->message : "";
  CallError error = makeError(
      isUnreachable(name) ? CallError::Category::unreachable : CallError::Category::answered, name,
      message);
  BusErrorDetails details = readErrorDetails(reply);
  error.domain = std::move(details.domain);
  error.code = details.code;
  error.kind = std::move(details.kind);
  return error;
}

CallReply readReply(sd_bus_message* reply) {
  if (sd_bus_message_is_method_error(reply, nullptr) > 0) return std::unexpected(readError(reply));
  if (sd_bus_message_has_signature(reply, "x") > 0) {
    std::int64_t number = 0;
    if (sd_bus_message_read(reply, "x", &number) > 0) return std::to_string(number);
  }
  if (sd_bus_message_has_signature(reply, "ay") > 0) {
    const void* data = nullptr;
    std::size_t size = 0;
    if (sd_bus_message_read_array(reply, 'y', &data, &size) >= 0) {
      return Bytes(static_cast<const char*>(data), size);
    }
  }
  return std::unexpected(makeError(CallError::Category::answered, SD_BUS_ERROR_INVALID_SIGNATURE,
                                   "The reply is not of the expected type."));
}

class BusTransport final : public Transport {
 public:
  explicit BusTransport(BusHandle bus) : bus_(std::move(bus)) {}

  void call(const std::string& method, const std::optional<Bytes>& body, Handler handler) override;
  Readiness readiness() override;
  void process() override;

 private:
  struct Pending {
    BusTransport* owner = nullptr;
    Handler handler;
    BusSlot slot;
    std::list<Pending>::iterator position;  ///< Its own place in the list.
  };
  struct Delivery {
    Handler handler;
    CallReply reply;
  };

  static int replyArrived(sd_bus_message* reply, void* userData, sd_bus_error*);
  int send(const std::string& method, const std::optional<Bytes>& body,
           std::list<Pending>::iterator pending);
  void settle(std::list<Pending>::iterator pending, CallReply reply);
  void loseConnection(int error);

  BusHandle bus_;
  bool lost_ = false;
  std::list<Pending> pending_;
  /// Replies that wait for `process`: handlers never run inside one of sd-bus's own callbacks,
  /// which cannot let an exception through.
  std::deque<Delivery> deliveries_;
};

int BusTransport::replyArrived(sd_bus_message* reply, void* userData, sd_bus_error*) {
  const auto* pending = static_cast<const Pending*>(userData);
  pending->owner->settle(pending->position, readReply(reply));
  return 0;
}

void BusTransport::settle(std::list<Pending>::iterator pending, CallReply reply) {
  deliveries_.push_back({std::move(pending->handler), std::move(reply)});
  pending_.erase(pending);
}

int BusTransport::send(const std::string& method, const std::optional<Bytes>& body,
                       std::list<Pending>::iterator pending) {
  sd_bus_message* created = nullptr;
  const std::string name(HelperConstants::machServiceName);
  int result = sd_bus_message_new_method_call(bus_.get(), &created, name.c_str(), objectPath,
                                              interfaceName, method.c_str());
  const BusMessage message(created);
  if (result < 0) return result;
  if (body) {
    result = sd_bus_message_append_array(message.get(), 'y', body->data(), body->size());
    if (result < 0) return result;
  }
  sd_bus_slot* slot = nullptr;
  result = sd_bus_call_async(bus_.get(), &slot, message.get(), &BusTransport::replyArrived,
                             &*pending, UINT64_MAX);
  if (result >= 0) pending->slot.reset(slot);
  return result;
}

void BusTransport::call(const std::string& method, const std::optional<Bytes>& body,
                        Handler handler) {
  const auto pending =
      pending_.insert(pending_.end(), Pending{this, std::move(handler), nullptr, {}});
  pending->position = pending;
  if (lost_) return loseConnection(ECONNRESET);
  if (sd_bus_member_name_is_valid(method.c_str()) <= 0) {
    return settle(pending, std::unexpected(makeError(CallError::Category::answered,
                                                     SD_BUS_ERROR_UNKNOWN_METHOD,
                                                     "\"" + method + "\" is not a method name.")));
  }
  if (body && body->size() > maximumBodyBytes) {
    return settle(pending, std::unexpected(makeError(CallError::Category::answered,
                                                     SD_BUS_ERROR_LIMITS_EXCEEDED,
                                                     "The body is larger than 32 MiB.")));
  }
  if (const int result = send(method, body, pending); result < 0) {
    settle(pending,
           std::unexpected(makeError(CallError::Category::unreachable, SD_BUS_ERROR_DISCONNECTED,
                                     "The call could not be sent: " + errnoText(-result) + ".")));
  }
}

Transport::Readiness BusTransport::readiness() {
  using Clock = std::chrono::steady_clock;
  if (lost_) return {-1, 0, deliveries_.empty() ? std::nullopt : std::optional(Clock::now())};
  const int events = sd_bus_get_events(bus_.get());
  std::uint64_t microseconds = 0;
  std::optional<Clock::time_point> deadline;
  if (events < 0 || !deliveries_.empty()) {
    deadline = Clock::now();
  } else if (sd_bus_get_timeout(bus_.get(), &microseconds) >= 0 && microseconds != UINT64_MAX) {
    // Absolute time of CLOCK_MONOTONIC, which is the steady clock here.
    deadline = Clock::time_point(std::chrono::microseconds(microseconds));
  }
  return {sd_bus_get_fd(bus_.get()), static_cast<short>(events < 0 ? 0 : events), deadline};
}

void BusTransport::loseConnection(int error) {
  lost_ = true;
  const CallError reason =
      makeError(CallError::Category::unreachable, SD_BUS_ERROR_DISCONNECTED,
                "The connection to the session bus was lost: " + errnoText(error) + ".");
  while (!pending_.empty()) settle(pending_.begin(), std::unexpected(reason));
}

void BusTransport::process() {
  while (!lost_) {
    const int result = sd_bus_process(bus_.get(), nullptr);
    if (result < 0) loseConnection(-result);
    if (result == 0) break;
  }
  // A handler may call again; what that settles at once is delivered by the next `process`.
  for (std::size_t count = deliveries_.size(); count > 0; --count) {
    Delivery delivery = std::move(deliveries_.front());
    deliveries_.pop_front();
    delivery.handler(std::move(delivery.reply));
  }
}

}  // namespace

std::expected<std::unique_ptr<Transport>, CallError> openTransport() {
  sd_bus* opened = nullptr;
  const int result = sd_bus_open_user(&opened);
  if (result == -ENOMEDIUM) {
    return std::unexpected(makeError(CallError::Category::unreachable, SD_BUS_ERROR_NO_SERVER,
                                     "There is no session bus."));
  }
  if (result < 0) {
    return std::unexpected(
        makeError(CallError::Category::unreachable, SD_BUS_ERROR_NO_SERVER,
                  "The session bus could not be reached: " + errnoText(-result) + "."));
  }
  return std::make_unique<BusTransport>(BusHandle(opened));
}

}  // namespace tessaloom
