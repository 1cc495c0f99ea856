#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <string_view>
#include <utility>
#include <variant>

#include "HelperProtocol/CallLoad.h"
#include "HelperProtocol/Methods.h"
#include "HelperProtocol/Reply.h"
#include "HelperProtocol/linux/BusHandles.h"
#include "linux/CompletionQueue.h"
#include "linux/PeerConnection.h"

namespace tessaloom {

/// The outcome of a call that was not accepted. Instead of the call, which may be large, its reply
/// is kept.
struct TooManyCalls {};

/// How a call ended; std::monostate when its work ended without a reply.
using CallOutcome = std::variant<std::monostate, Bytes, std::int64_t, ReplyError, TooManyCalls>;

/// One accepted call. Lives on the bus's thread; comes back through the completion queue once its
/// outcome is known.
class BusCall : public CompletionQueue::Completion {
 public:
  BusMessage message;
  const Method& method;
  std::shared_ptr<PeerConnection> connection;
  CallWeight weight;
  CallOutcome outcome;  ///< Written by the worker, before it posts the completion.

 protected:
  BusCall(BusMessage callMessage, const Method& calledMethod, std::shared_ptr<PeerConnection> peer,
          CallWeight callWeight)
      : message(std::move(callMessage)),
        method(calledMethod),
        connection(std::move(peer)),
        weight(callWeight) {}
};

/// The worker's end of a call: carries the outcome back exactly once. When it is destroyed without
/// an outcome (the work could not be started, say), the call comes back without one.
class Responder {
 public:
  Responder(CompletionQueue& completions, BusCall& call)
      : completions_(completions), call_(&call) {}
  ~Responder() { respond(CallOutcome()); }
  Responder(const Responder&) = delete;
  Responder& operator=(const Responder&) = delete;

  void respond(CallOutcome outcome) noexcept {
    if (call_ == nullptr) return;
    call_->outcome = std::move(outcome);
    completions_.post(*std::exchange(call_, nullptr));
  }

 private:
  CompletionQueue& completions_;
  BusCall* call_;
};

/// A view of a request's bytes, which the message owns; a negative errno on failure.
std::expected<std::string_view, int> requestOf(sd_bus_message* call, const Method& method);

/// How many messages wait in the library for the bus to accept them.
std::uint64_t queuedMessages(sd_bus* bus);

/// Sends the reply to a call: its return value, or an error whose second argument says more than
/// its name. Returns a negative errno when not even an error could be sent.
int sendReply(sd_bus_message* call, const CallOutcome& outcome);

}  // namespace tessaloom
