#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <variant>

#include "HelperProtocol/CallLoad.h"
#include "HelperProtocol/Reply.h"
#include "HelperProtocol/linux/BusHandles.h"
#include "linux/CompletionQueue.h"

namespace tessaloom {

/// What a call came to; nothing when its work ended without an answer.
using CallOutcome = std::variant<std::monostate, Bytes, std::int64_t, ReplyError>;

/// One accepted call. Lives on the bus's thread until its outcome comes back through the completion
/// queue.
class BusCall : public CompletionQueue::Completion {
 public:
  BusMessage message;
  std::string sender;
  CallWeight weight;
  CallOutcome outcome;  ///< Written by the worker, before it posts the completion.

 protected:
  BusCall(BusMessage callMessage, std::string callSender, CallWeight callWeight)
      : message(std::move(callMessage)), sender(std::move(callSender)), weight(callWeight) {}
};

/// The worker's end of a call: carries the outcome back exactly once. When the last copy goes
/// without an answer (the work could not be started, say), the call comes back without one.
class Responder {
 public:
  explicit Responder(CompletionQueue& completions) : completions_(completions) {}
  ~Responder() { answer(CallOutcome()); }
  Responder(const Responder&) = delete;
  Responder& operator=(const Responder&) = delete;

  /// The call to answer; until there is one, nothing is carried.
  void bind(BusCall& call) { call_ = &call; }

  void answer(CallOutcome outcome) noexcept {
    if (call_ == nullptr) return;
    call_->outcome = std::move(outcome);
    completions_.post(*std::exchange(call_, nullptr));
  }

 private:
  CompletionQueue& completions_;
  BusCall* call_ = nullptr;
};

using CallReply = std::shared_ptr<Responder>;

/// Sends what a call came to: its return value, or an error whose second argument says more than
/// its name. Returns a negative errno when not even an error could be sent.
int sendReply(sd_bus_message* call, const CallOutcome& outcome);

}  // namespace tessaloom
