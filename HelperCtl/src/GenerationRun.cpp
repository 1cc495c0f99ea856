#include "GenerationRun.h"

#include <poll.h>

#include <chrono>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include "Console.h"
#include "EventLoop.h"
#include "HelperProtocol/HelperCoding.h"
#include "HelperProtocol/HelperConstants.h"
#include "HelperProtocol/Methods.h"
#include "HelperProtocol/ProcessMessages.h"
#include "Interrupts.h"

namespace tessaloom {
namespace {

/// The line that says how long the engine has been at work; only where it can be wiped away again.
class ProgressLine {
 public:
  explicit ProgressLine(GenerationEngineID engine) : engine_(wireValue(engine)) {}
  ~ProgressLine() { clear(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void show(bool cancelling) {
    if (!console::canRedrawErrorLine()) return;
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_);
    const std::string line = (cancelling ? "cancelling " : "waiting for ") + engine_ + ", " +
                             std::to_string(elapsed.count()) + " s" +
                             (cancelling ? " (Ctrl-C again leaves at once)" : " (Ctrl-C cancels)");
    console::printToError("\r\033[K" + console::styledForError(console::Style::dim, line));
    shown_ = true;
  }

  void clear() {
    if (shown_) console::printToError("\r\033[K");
    shown_ = false;
  }

 private:
  std::string engine_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  bool shown_ = false;
};

/// A reply that cannot be read is as good as no: the next tick asks again.
bool saysThatItWasCancelled(const CallReply& reply) {
  try {
    return reply && HelperCoding::makeDecoder().decode<KillResult>(*reply).succeeded;
  } catch (const std::exception&) {
    return false;
  }
}

/// One generation from the call to its answer, or to its cancellation.
class GenerationRun {
 public:
  GenerationRun(Transport& transport, const GenerationRequest& request)
      : transport_(transport), request_(request), loop_(transport), progress_(request.engine()) {}

  CallReply run();

 private:
  static constexpr std::chrono::milliseconds tickInterval{250};

  bool isOver() const { return answer_ || cancelConfirmed_ || interruptCount_ > 1; }
  void interrupted(int count);
  void cancel();
  CallError cancelledError() const;

  Transport& transport_;
  const GenerationRequest& request_;
  EventLoop loop_;
  ProgressLine progress_;
  Interrupts interrupts_;
  int interruptCount_ = 0;
  bool cancelConfirmed_ = false;
  std::optional<CallReply> answer_;
};

CallReply GenerationRun::run() {
  loop_.watch({interrupts_.descriptor(), [] { return std::optional<short>(POLLIN); },
               [this](short) { interrupted(interrupts_.take()); }});
  loop_.every(tickInterval, [this] {
    // Until the engine has been launched nothing can be signalled, so the cancel is repeated.
    if (interruptCount_ > 0) cancel();
    progress_.show(interruptCount_ > 0);
  });
  transport_.call(methodNamed("GenerateText").name, HelperCoding::makeEncoder().encode(request_),
                  [this](CallReply reply) { answer_ = std::move(reply); });
  progress_.show(false);
  // No limit: the helper answers within the timeout and the few seconds that ending an engine
  // takes.
  loop_.run([this] { return isOver(); });
  progress_.clear();
  if (answer_) return std::move(*answer_);
  return std::unexpected(cancelledError());
}

void GenerationRun::interrupted(int count) {
  const bool isFirst = interruptCount_ == 0 && count > 0;
  interruptCount_ += count;
  if (isFirst) cancel();
}

void GenerationRun::cancel() {
  const Bytes body =
      HelperCoding::makeEncoder().encode(GenerationCancelRequest{request_.requestID()});
  transport_.call(methodNamed("CancelGeneration").name, body, [this](const CallReply& reply) {
    cancelConfirmed_ |= saysThatItWasCancelled(reply);
  });
}

CallError GenerationRun::cancelledError() const {
  const std::string kind(wireValue(GenerationFailureKind::cancelled));
  CallError error{CallError::Category::answered,
                  std::string(HelperConstants::generationErrorDomain) + "." + kind,
                  kind,
                  std::string(HelperConstants::generationErrorDomain),
                  HelperConstants::generationErrorCode,
                  kind};
  if (!cancelConfirmed_) {
    error.message =
        "Left without waiting for the cancellation; the engine may run until its timeout.";
  }
  return error;
}

}  // namespace

CallReply runGeneration(Transport& transport, const GenerationRequest& request) {
  return GenerationRun(transport, request).run();
}

}  // namespace tessaloom
