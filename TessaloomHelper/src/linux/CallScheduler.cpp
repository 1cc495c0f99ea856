#include "linux/CallScheduler.h"

#include <malloc.h>

#include <algorithm>
#include <exception>
#include <functional>
#include <string_view>
#include <utility>
#include <variant>

#include "linux/ThreadTasks.h"

namespace tessaloom {

// Generations and probes do not wait for each other's threads.
static_assert(2 * CallScheduler::maximumEngineCalls <= ThreadTasks::maximumThreads);

namespace {

std::size_t sizeOf(const CallOutcome& outcome) {
  const auto* bytes = std::get_if<Bytes>(&outcome);
  return bytes != nullptr ? bytes->size() : 0;
}

CallOutcome outcomeOf(Reply reply) {
  return std::visit([](auto&& value) { return CallOutcome(std::forward<decltype(value)>(value)); },
                    std::move(reply));
}

}  // namespace

class CallScheduler::Call final : public BusCall {
 public:
  Call(CallScheduler& scheduler, BusMessage callMessage, const Method& calledMethod,
       std::shared_ptr<PeerConnection> callerConnection, CallWeight callWeight)
      : BusCall(std::move(callMessage), calledMethod, std::move(callerConnection), callWeight),
        scheduler_(scheduler) {}

  void run() override { scheduler_.finish(*this); }

  Caller* caller = nullptr;
  Calls::iterator position;  ///< In one of the caller's lists.

 private:
  CallScheduler& scheduler_;
};

/// A process that has unanswered calls. Calls move between its lists by splicing, which needs no
/// memory.
struct CallScheduler::Caller {
  explicit Caller(pid_t callingProcess) : process(callingProcess) {}

  pid_t process;
  CallLoad load;
  Calls waiting;                ///< For a thread of the engines' tasks.
  Calls running;                ///< On other threads.
  Calls finished;               ///< To be sent.
  std::size_t refused = 0;      ///< Among the finished ones.
  std::uint64_t lastStart = 0;  ///< The turn in which an engine call of it was last started.
  std::uint64_t lastReply = 0;  ///< The turn in which a reply was last sent to it.
};

CallScheduler::CallScheduler(sd_bus* bus, CompletionQueue& completions, Tasks& engineTasks)
    : bus_(bus), completions_(completions), engineTasks_(engineTasks) {}

CallScheduler::~CallScheduler() = default;

int CallScheduler::accept(sd_bus_message* message, const Method& method,
                          const std::shared_ptr<PeerConnection>& connection) {
  // Behind another call of its connection it has to wait, so that the order is kept.
  if (method.kind == Method::Kind::immediate && connection->queued == 0 && hasRoom()) {
    return replyAtOnce(message, method, *connection);
  }
  const auto request = requestOf(message, method);
  if (!request) return request.error();
  const CallWeight weight{.kind = method.kind, .bytes = request->size()};
  if (!fits(find(connection->process), weight)) return refuse(message, method, connection);
  Call& call = add(message, method, connection, weight);
  call.caller->load.add(weight);
  acceptedBytes_ += weight.bytes;
  if (Method::runsEngine(method.kind)) {
    ++engineCalls_;
    startEngineCalls();
  } else {
    call.caller->running.splice(call.caller->running.end(), call.caller->waiting, call.position);
    start(call);
    ++connection->queued;
  }
  return 1;
}

// A new call that waits.
CallScheduler::Call& CallScheduler::add(sd_bus_message* message, const Method& method,
                                        const std::shared_ptr<PeerConnection>& connection,
                                        CallWeight weight) {
  Calls fresh;
  Call& call = fresh.emplace_back(*this, retain(message), method, connection, weight);
  call.position = fresh.begin();
  call.caller = find(connection->process);
  if (call.caller == nullptr) call.caller = &callers_.emplace_back(connection->process);
  call.caller->waiting.splice(call.caller->waiting.end(), fresh);
  ++unanswered_;
  return call;
}

// The reply waits for its caller's turn like any other.
int CallScheduler::refuse(sd_bus_message* message, const Method& method,
                          const std::shared_ptr<PeerConnection>& connection) {
  const Caller* caller = find(connection->process);
  if (caller != nullptr && caller->refused >= maximumRefusals) return 1;
  sd_bus_message* refusal = nullptr;
  const int result =
      sd_bus_message_new_method_errorf(message, &refusal, SD_BUS_ERROR_LIMITS_EXCEEDED,
                                       "Too many calls are pending, or they are too large.");
  const BusMessage owned(refusal);
  if (result < 0) return result;
  Call& call = add(refusal, method, connection, {.kind = method.kind, .bytes = 0});
  call.outcome = TooManyCalls();
  ++call.caller->refused;
  ++refused_;
  ++finished_;
  call.caller->finished.splice(call.caller->finished.end(), call.caller->waiting, call.position);
  return 1;
}

bool CallScheduler::hasRoom() {
  const std::uint64_t queued = queuedMessages(bus_);
  if (queued == 0) queuedBytes_ = 0;
  return queued <= maximumQueuedReplies && queuedBytes_ <= maximumQueuedBytes;
}

void CallScheduler::sendReplies() {
  while (finished_ > 0 && hasRoom()) {
    Caller* next = nullptr;
    for (Caller& caller : callers_) {
      if (caller.finished.empty()) continue;
      if (next == nullptr || caller.lastReply < next->lastReply) next = &caller;
    }
    // NOLINTNEXTLINE(clang-analyzer-core.NullDereference): some caller has the finished calls.
    next->lastReply = ++turns_;
    send(next->finished.front());
  }
}

// What a call's work took cannot be inferred from its request and reply: a listing that failed has
// taken as much as one that did not. Where there is little to give back this takes microseconds.
void CallScheduler::releaseMemory() {
  if (unanswered_ == 0 && std::exchange(hasFreedMemory_, false)) (void)::malloc_trim(0);
}

CallScheduler::Caller* CallScheduler::find(pid_t process) {
  const auto found = std::ranges::find(callers_, process, &Caller::process);
  return found == callers_.end() ? nullptr : &*found;
}

bool CallScheduler::fits(const Caller* caller, CallWeight weight) const {
  if (caller == nullptr) {
    static const CallLoad none;
    if (weight.bytes <= moderateBytes) return true;
    return none.fits(weight) && acceptedBytes_ + weight.bytes <= maximumBytes;
  }
  return caller->load.fits(weight) && unanswered_ - refused_ < maximumCalls &&
         acceptedBytes_ + weight.bytes <= maximumBytes;
}

int CallScheduler::replyAtOnce(sd_bus_message* message, const Method& method,
                               PeerConnection& connection) {
  CallOutcome outcome;
  connection.service.call(method, {}, [&](Reply reply) { outcome = outcomeOf(std::move(reply)); });
  const int result = sendReply(message, outcome);
  return result < 0 ? result : 1;
}

// Hands a call to another thread. Where memory is lacking it comes back without an outcome.
void CallScheduler::start(Call& call) noexcept {
  std::shared_ptr<Responder> responder;
  try {
    responder = std::make_shared<Responder>(completions_, call);
  } catch (const std::bad_alloc&) {
    return completions_.post(call);
  }
  try {
    // The message stays as it is until the call comes back.
    sd_bus_message_rewind(call.message.get(), 1);
    const auto request = requestOf(call.message.get(), call.method);
    std::function<void()> work = [connection = call.connection, &method = call.method,
                                  request = request.value_or(std::string_view()), responder] {
      try {
        connection->service.call(method, request, [responder](Reply reply) {
          responder->respond(outcomeOf(std::move(reply)));
        });
      } catch (const std::exception&) {
        responder->respond(CallOutcome());
      }
    };
    if (!Method::runsEngine(call.method.kind)) {
      call.connection->queue.submit(std::move(work));
    } else if (call.connection->queued == 0) {
      engineTasks_.runConcurrently(QualityOfService::userInitiated, std::move(work));
    } else {
      call.connection->queue.submit([this, work = std::move(work)]() mutable {
        try {
          engineTasks_.runConcurrently(QualityOfService::userInitiated, std::move(work));
        } catch (const std::exception&) {
          return;  // The responder is destroyed with the work.
        }
      });
    }
  } catch (const std::exception&) {
    return;
  }
}

void CallScheduler::startEngineCalls() {
  for (const Method::Kind kind : {Method::Kind::generation, Method::Kind::probe}) {
    while (Call* call = nextEngineCall(kind)) {
      Caller& caller = *call->caller;
      caller.lastStart = ++turns_;
      ++running_[std::to_underlying(kind)];
      caller.running.splice(caller.running.end(), caller.waiting, call->position);
      start(*call);
    }
  }
}

// Of the callers with calls of this kind, the one that has waited for the longest time gets the
// next place.
CallScheduler::Call* CallScheduler::nextEngineCall(Method::Kind kind) {
  if (running_[std::to_underlying(kind)] >= maximumEngineCalls) return nullptr;
  Call* next = nullptr;
  for (Caller& caller : callers_) {
    if (next != nullptr && caller.lastStart >= next->caller->lastStart) continue;
    const auto first = std::ranges::find_if(
        caller.waiting, [&](const Call& call) { return call.method.kind == kind; });
    if (first != caller.waiting.end()) next = &*first;
  }
  return next;
}

void CallScheduler::finish(Call& call) {
  Caller& caller = *call.caller;
  if (Method::runsEngine(call.method.kind)) {
    --engineCalls_;
    --running_[std::to_underlying(call.method.kind)];
  }
  ++finished_;
  caller.finished.splice(caller.finished.end(), caller.running, call.position);
  startEngineCalls();
}

void CallScheduler::send(Call& call) {
  Caller& caller = *call.caller;
  const std::size_t size = sizeOf(call.outcome);
  if (!call.connection->isGone) {
    sendReply(call.message.get(), call.outcome);
    queuedBytes_ += size;
  }
  hasFreedMemory_ = true;
  if (std::holds_alternative<TooManyCalls>(call.outcome)) {
    --caller.refused;
    --refused_;
  } else {
    caller.load.remove(call.weight);
    acceptedBytes_ -= call.weight.bytes;
    if (!Method::runsEngine(call.method.kind)) --call.connection->queued;
  }
  --finished_;
  --unanswered_;
  caller.finished.erase(call.position);
  if (caller.waiting.empty() && caller.running.empty() && caller.finished.empty()) {
    callers_.remove_if([&](const Caller& one) { return &one == &caller; });
  }
}

}  // namespace tessaloom
