#include "GenerationRun.h"

#include <poll.h>

#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include "Client.h"
#include "Console.h"
#include "EventLoop.h"
#include "HelperProtocol/HelperCoding.h"
#include "HelperProtocol/HelperConstants.h"
#include "HelperProtocol/Methods.h"
#include "HelperProtocol/ProcessMessages.h"
#include "TLFoundation/DisplayWidth.h"
#include "TerminationSignals.h"

namespace tessaloom {
namespace {

/// The line that shows how long the engine has been running. It is drawn only where it can be
/// erased again, and only while this process is in the terminal's foreground: elsewhere it would
/// overwrite what the user is doing there, and Ctrl-C would not reach this process.
class ProgressLine {
 public:
  explicit ProgressLine(GenerationEngineID engine) : engine_(wireValue(engine)) {}
  ~ProgressLine() { clear(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void show(bool cancelling) {
    if (!Console::canRedrawErrorLine()) return;
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_);
    const std::string line =
        (cancelling ? "cancelling " : "waiting for ") + engine_ + ", " +
        std::to_string(elapsed.count()) + " s" +
        (cancelling ? " (Ctrl-C again quits immediately)" : " (Ctrl-C cancels)");
    // The last column stays free: some terminals go to the next line when it is filled.
    const std::string_view shown = prefixOfWidth(line, Console::errorWidth() - 1);
    Console::printToError("\r\033[K" + Console::styledForError(Console::Style::dim, shown));
    isShown_ = true;
  }

  void clear() {
    if (isShown_ && Console::canRedrawErrorLine()) Console::printToError("\r\033[K");
    isShown_ = false;
  }

 private:
  std::string engine_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  bool isShown_ = false;
};

/// A reply that cannot be read counts as no: the next tick asks again.
bool saysThatItWasCancelled(const CallReply& reply) {
  if (!reply) return false;
  const auto result = decodeReply<KillResult>(*reply);
  return result && result->succeeded;
}

/// One generation from the call to its answer, or to its cancellation.
class GenerationRun {
 public:
  GenerationRun(Transport& transport, const GenerationRequest& request)
      : transport_(transport), request_(request), loop_(transport), progress_(request.engine()) {}

  GenerationOutcome run();

 private:
  static constexpr std::chrono::milliseconds tickInterval{250};

  bool isOver() const { return answer_ || cancelConfirmed_ || wasInterruptedTwice_; }
  void interrupted();
  void cancel();
  CallError cancelledError() const;

  Transport& transport_;
  const GenerationRequest& request_;
  EventLoop loop_;
  ProgressLine progress_;
  TerminationSignals signals_;
  std::optional<int> signal_;         ///< The first that came.
  bool wasInterruptedTwice_ = false;  ///< Whether a second one came.
  bool cancelUnderWay_ = false;
  bool cancelConfirmed_ = false;
  std::optional<CallReply> answer_;
};

GenerationOutcome GenerationRun::run() {
  loop_.watch({signals_.descriptor(), [] { return std::optional<short>(POLLIN); },
               [this](short) { interrupted(); }});
  loop_.every(tickInterval, [this] {
    // Until the engine has been launched nothing can be signaled, so the cancellation is repeated.
    if (signal_) cancel();
    progress_.show(signal_.has_value());
  });
  transport_.call(methodNamed("GenerateText").name, HelperCoding::makeEncoder().encode(request_),
                  [this](CallReply reply) { answer_ = std::move(reply); });
  progress_.show(false);
  // No limit: the helper answers within the timeout and the few seconds that ending an engine
  // takes.
  loop_.run([this] { return isOver(); });
  const auto late = signals_.stop();
  if (!signal_) signal_ = late;
  progress_.clear();
  if (answer_) return {std::move(*answer_), signal_};
  return {std::unexpected(cancelledError()), signal_};
}

void GenerationRun::interrupted() {
  const auto number = signals_.next();
  if (!number) return;
  if (signal_) {
    wasInterruptedTwice_ = true;
    return;
  }
  signal_ = number;
  cancel();
}

void GenerationRun::cancel() {
  if (std::exchange(cancelUnderWay_, true)) return;
  const Bytes body =
      HelperCoding::makeEncoder().encode(GenerationCancelRequest{request_.requestID()});
  transport_.call(methodNamed("CancelGeneration").name, body, [this](const CallReply& reply) {
    cancelUnderWay_ = false;
    cancelConfirmed_ |= saysThatItWasCancelled(reply);
  });
}

CallError GenerationRun::cancelledError() const {
  const std::string kind(wireValue(GenerationFailureKind::cancelled));
  CallError error{CallError::Category::failed,
                  std::string(HelperConstants::generationErrorDomain) + "." + kind,
                  kind,
                  std::string(HelperConstants::generationErrorDomain),
                  HelperConstants::generationErrorCode,
                  kind};
  if (!cancelConfirmed_) {
    error.message =
        "Exited without waiting for the cancellation; the engine may run until its timeout.";
  }
  return error;
}

}  // namespace

GenerationOutcome runGeneration(Transport& transport, const GenerationRequest& request) {
  return GenerationRun(transport, request).run();
}

}  // namespace tessaloom
