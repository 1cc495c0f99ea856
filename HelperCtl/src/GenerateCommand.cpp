#include <poll.h>

#include <charconv>
#include <chrono>
#include <cstdint>
#include <string>
#include <system_error>
#include <utility>

#include "CallCommands.h"
#include "EventLoop.h"
#include "GenerationAdvice.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationResult.h"
#include "HelperProtocol/HelperConstants.h"
#include "HumanFormat.h"
#include "Interrupts.h"
#include "Methods.h"
#include "TLFoundation/Unicode.h"

namespace tessaloom {
namespace {

using console::print;
using console::safeLine;

std::unexpected<UsageError> usageError(std::string message) {
  return std::unexpected(UsageError{std::move(message)});
}

/// What a limit of the request says to the person who typed it.
std::string explainLimit(const GenerationDTOError& error) {
  switch (error.errorCase()) {
    case GenerationDTOError::Case::textTooLong:
      return (error.limit() == GenerationRequest::instructionsLimit ? "the instructions have "
                                                                    : "the prompt has ") +
             std::to_string(error.actual()) + " characters, at most " +
             std::to_string(error.limit()) + " are allowed; shorten the text";
    case GenerationDTOError::Case::controlCharacters:
      return "the text holds control characters other than tab and line breaks; remove them";
    case GenerationDTOError::Case::timeoutOutOfRange:
      return "--timeout is " + std::to_string(error.actual()) + ", but has to be from " +
             std::to_string(GenerationTimeout::minimum) + " to " +
             std::to_string(GenerationTimeout::maximum) + " seconds";
    default:
      return error.what();
  }
}

std::expected<std::string, UsageError> readPrompt(const Arguments& arguments) {
  const bool fromInput = arguments.positionals().empty() || arguments.positionals().front() == "-";
  if (arguments.positionals().empty() && console::inputIsTerminal()) {
    return usageError("there is no prompt: give it as an argument in quotes, or pipe it in");
  }
  std::string prompt = fromInput ? readStandardInput() : arguments.positionals().front();
  if (!Unicode::isValidUTF8(prompt)) return usageError("the prompt is not UTF-8 text");
  if (Unicode::trimmed(prompt).empty()) {
    return usageError("the prompt is empty: say what the engine is to write");
  }
  return prompt;
}

std::expected<GenerationTimeout, UsageError> readTimeout(const Arguments& arguments) {
  const auto text = arguments.value(timeoutOption.name);
  if (!text) return GenerationTimeout();
  std::int64_t seconds = 0;
  const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), seconds);
  if (error != std::errc() || end != text->data() + text->size()) {
    return usageError("--timeout \"" + safeLine(*text) + "\" is not a whole number of seconds");
  }
  return GenerationTimeout(seconds);
}

std::expected<GenerationRequest, UsageError> readRequest(const Arguments& arguments) {
  const auto engineName = arguments.value(engineOption.name);
  if (!engineName) {
    return usageError("choose an engine: --engine claudeCode or --engine codex");
  }
  const auto engine = readEngine(*engineName);
  if (!engine) return std::unexpected(engine.error());
  const std::string shapeName = arguments.value(shapeOption.name).value_or("freeText");
  const std::string instructions = arguments.value(instructionsOption.name).value_or("");
  if (!Unicode::isValidUTF8(instructions)) return usageError("the instructions are not UTF-8 text");
  UUID id = UUID::random();
  if (const auto text = arguments.value(idOption.name)) {
    const auto given = readUUID(*text);
    if (!given) return std::unexpected(given.error());
    id = *given;
  }
  try {
    const GenerationShape shape = generationShape(shapeName);
    const auto timeout = readTimeout(arguments);
    if (!timeout) return std::unexpected(timeout.error());
    const auto prompt = readPrompt(arguments);
    if (!prompt) return std::unexpected(prompt.error());
    return GenerationRequest(id, *engine, shape, instructions, *prompt, *timeout);
  } catch (const GenerationDTOError& error) {
    if (error.errorCase() == GenerationDTOError::Case::unknownShape) {
      return usageError("unknown shape \"" + safeLine(shapeName) +
                        "\": use freeText or itemFields");
    }
    return usageError(explainLimit(error));
  }
}

std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all.append(all.empty() ? "" : ", ").append(safeLine(text));
  return all.empty() ? "(none)" : all;
}

void showResult(const GenerationResult& result) {
  if (result.fields) {
    print("description   " + safeLine(result.fields->itemDescription()) + "\n");
    print("tags          " + joined(result.fields->tags()) + "\n");
    print("globs         " + joined(result.fields->globs()) + "\n");
    print(std::string("always apply  ") + (result.fields->alwaysApply() ? "yes" : "no") + "\n");
  } else {
    const std::string text = console::safeText(result.text);
    print(text);
    if (!text.ends_with('\n')) print("\n");
  }
  if (!console::errorIsTerminal()) return;
  std::string footer =
      std::string(wireValue(result.engine)) + ", " + humanMilliseconds(result.durationMilliseconds);
  if (result.tokens) {
    footer += ", " + std::to_string(result.tokens->input) + " tokens in (" +
              std::to_string(result.tokens->cachedInput) + " cached), " +
              std::to_string(result.tokens->output) + " out";
  }
  console::flushOutput();
  console::printToError(console::styledForError(console::Style::dim, footer) + "\n");
}

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
  transport_.call(std::string(methods::generateText), HelperCoding::makeEncoder().encode(request_),
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
  transport_.call(std::string(methods::cancelGeneration), body, [this](const CallReply& reply) {
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

CommandResult runGenerate(const Arguments& arguments) {
  const auto request = readRequest(arguments);
  if (!request) return std::unexpected(request.error());
  const auto transport = openTransport();
  const bool json = arguments.has(jsonOption.name);
  if (!transport) return reportError(transport.error(), json);
  CallReply reply = GenerationRun(**transport, *request).run();
  if (!reply && !json) {
    reply = std::unexpected(explainGenerationError(reply.error(), request->engine()));
  }
  return showReply<GenerationResult>(reply, arguments, showResult);
}

}  // namespace tessaloom
