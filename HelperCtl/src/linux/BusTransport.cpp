#include <cerrno>
#include <cstring>
#include <deque>
#include <list>
#include <memory>
#include <utility>

#include "BusAdvice.h"
#include "HelperProtocol/CallLoad.h"
#include "HelperProtocol/HelperConstants.h"
#include "HelperProtocol/Methods.h"
#include "HelperProtocol/linux/BusError.h"
#include "HelperProtocol/linux/BusHandles.h"
#include "HelperProtocol/linux/BusRequests.h"
#include "HelperProtocol/linux/SessionBus.h"
#include "TLFoundation/ErrnoText.h"
#include "Transport.h"

namespace tessaloom {
namespace {

/// How many messages are received before the owner looks at its other descriptors and its clock: a
/// peer may send faster than this process reads.
constexpr int messagesAtOnce = 256;

CallError makeError(CallError::Category category, std::string name, std::string message) {
  CallError error{category, std::move(name), std::move(message)};
  error.advice = busAdvice(error);
  return error;
}

CallError readError(sd_bus_message* reply) {
  const sd_bus_error* received = sd_bus_message_get_error(reply);
  const std::string name = received->name != nullptr ? received->name : "";
  const std::string message = received->message != nullptr ? received->message : "";
  // The bus sends an error on behalf of who cannot: a helper that does not start, or has exited.
  CallError error = makeError(BusRequests::isFromBus(reply) ? CallError::Category::unreachable
                                                            : CallError::Category::failed,
                              name, message);
  BusErrorDetails details = readErrorDetails(reply);
  error.domain = std::move(details.domain);
  error.code = details.code;
  error.kind = std::move(details.kind);
  return error;
}

/// `signature` is that of the method's reply.
CallReply readReply(sd_bus_message* reply, const char* signature) {
  if (sd_bus_message_is_method_error(reply, nullptr) > 0) return std::unexpected(readError(reply));
  if (sd_bus_message_has_signature(reply, signature) > 0) {
    std::int64_t number = 0;
    if (*signature == 'x' && sd_bus_message_read(reply, "x", &number) > 0) {
      return std::to_string(number);
    }
    const void* data = nullptr;
    std::size_t size = 0;
    if (sd_bus_message_read_array(reply, 'y', &data, &size) >= 0) {
      return Bytes(static_cast<const char*>(data), size);
    }
  }
  return std::unexpected(makeError(CallError::Category::failed, SD_BUS_ERROR_INVALID_SIGNATURE,
                                   "The reply is not of the expected type."));
}

/// Accepts replies from the helper and the bus only; see BusRequests.
class BusTransport final : public Transport {
 public:
  explicit BusTransport(BusHandle bus) : bus_(std::move(bus)), requests_(bus_.get()) {}

  void call(const std::string& method, const std::optional<Bytes>& body, Handler handler) override;
  Readiness readiness() override;
  void process() override;

 private:
  struct Pending {
    Handler handler;
    BusRequest request;
  };
  struct Delivery {
    Handler handler;
    CallReply reply;
  };

  int send(const std::string& method, const std::optional<Bytes>& body,
           std::list<Pending>::iterator pending);
  void finish(std::list<Pending>::iterator pending, CallReply reply);
  void loseConnection(int error);

  BusHandle bus_;
  BusRequests requests_;
  bool lost_ = false;
  std::list<Pending> pending_;
  /// Replies that wait for `process`: handlers never run inside one of sd-bus's own callbacks,
  /// which cannot let an exception through.
  std::deque<Delivery> deliveries_;
};

void BusTransport::finish(std::list<Pending>::iterator pending, CallReply reply) {
  deliveries_.push_back({std::move(pending->handler), std::move(reply)});
  pending_.erase(pending);
}

int BusTransport::send(const std::string& method, const std::optional<Bytes>& body,
                       std::list<Pending>::iterator pending) {
  sd_bus_message* created = nullptr;
  const std::string name(HelperConstants::machServiceName);
  int result = sd_bus_message_new_method_call(bus_.get(), &created, name.c_str(),
                                              HelperConstants::objectPath,
                                              HelperConstants::interfaceName, method.c_str());
  const BusMessage message(created);
  if (result < 0) return -result;
  if (body) {
    result = sd_bus_message_append_array(message.get(), 'y', body->data(), body->size());
    if (result < 0) return -result;
  }
  const Method* known = findMethod(method);
  auto request = requests_.send(
      message.get(), [this, pending, signature = known != nullptr ? known->result : "ay"](
                         sd_bus_message* reply) { finish(pending, readReply(reply, signature)); });
  if (!request) return request.error();
  pending->request = *std::move(request);
  return 0;
}

void BusTransport::call(const std::string& method, const std::optional<Bytes>& body,
                        Handler handler) {
  const auto pending = pending_.emplace(pending_.end(), std::move(handler), BusRequest());
  if (lost_) return loseConnection(ECONNRESET);
  // A NUL would end the name early.
  if (method.contains('\0') || sd_bus_member_name_is_valid(method.c_str()) <= 0) {
    return finish(
        pending, std::unexpected(makeError(CallError::Category::failed, SD_BUS_ERROR_UNKNOWN_METHOD,
                                           "\"" + method + "\" is not a method name.")));
  }
  // The helper, too, would refuse it, but as if it would take it later. It counts the path as well.
  if (body && body->size() > CallLoad::maximumBytes - std::strlen(HelperConstants::objectPath)) {
    return finish(pending, std::unexpected(CallError{
                               CallError::Category::failed, SD_BUS_ERROR_LIMITS_EXCEEDED,
                               "The body exceeds the helper's limit, " +
                                   std::to_string(CallLoad::maximumBytes / 1'048'576) + " MiB."}));
  }
  if (const int error = send(method, body, pending); error != 0) {
    finish(pending,
           std::unexpected(makeError(CallError::Category::unreachable, SD_BUS_ERROR_DISCONNECTED,
                                     "The call could not be sent: " + errnoText(error) + ".")));
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
  while (!pending_.empty()) finish(pending_.begin(), std::unexpected(reason));
}

void BusTransport::process() {
  for (int i = 0; i < messagesAtOnce && !lost_; ++i) {
    const int result = sd_bus_process(bus_.get(), nullptr);
    if (result < 0) loseConnection(-result);
    if (result == 0) break;
  }
  // A handler may call again; what that finishes at once is delivered by the next `process`.
  for (std::size_t count = deliveries_.size(); count > 0; --count) {
    Delivery delivery = std::move(deliveries_.front());
    deliveries_.pop_front();
    delivery.handler(std::move(delivery.reply));
  }
}

}  // namespace

std::expected<std::unique_ptr<Transport>, CallError> openTransport() {
  auto bus = openSessionBus();
  if (bus) return std::make_unique<BusTransport>(*std::move(bus));
  return std::unexpected(makeError(CallError::Category::unreachable, SD_BUS_ERROR_NO_SERVER,
                                   "The session bus at " + sessionBusAddress() +
                                       " could not be reached: " + errnoText(bus.error()) + "."));
}

}  // namespace tessaloom
