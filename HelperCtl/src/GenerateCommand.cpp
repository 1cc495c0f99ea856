#include <cstdint>
#include <string>
#include <utility>

#include "CallCommands.h"
#include "GenerationAdvice.h"
#include "GenerationRun.h"
#include "HelperProtocol/BoundedText.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationResult.h"
#include "HumanFormat.h"
#include "TLFoundation/ParseNumber.h"
#include "TLFoundation/Unicode.h"
#include "TerminationSignals.h"

namespace tessaloom {
namespace {

using Console::print;
using Console::safeLine;

std::string timeoutRange() {
  return "--timeout must be between " + std::to_string(GenerationTimeout::minimum) + " and " +
         std::to_string(GenerationTimeout::maximum) + " seconds";
}

/// What a limit of the request says to the person who typed it. `subject` begins a sentence about
/// the text in question.
std::string explainLimit(const GenerationDTOError& error, const std::string& subject) {
  switch (error.kind()) {
    case GenerationDTOError::Kind::textTooLong:
      return (error.limit() == GenerationRequest::instructionsLimit ? "the instructions are "
                                                                    : "the prompt is ") +
             std::to_string(error.actual()) + " characters long; the limit is " +
             std::to_string(error.limit());
    case GenerationDTOError::Kind::controlCharacters:
      return subject + " a control character; only tab and line breaks are allowed";
    case GenerationDTOError::Kind::timeoutOutOfRange:
      return timeoutRange() + ", not " + std::to_string(error.actual());
    default:
      return error.what();
  }
}

std::expected<std::string, UsageError> readPrompt(const Arguments& arguments) {
  const bool fromInput = arguments.positionals().empty() || arguments.positionals().front() == "-";
  if (arguments.positionals().empty() && Console::inputIsTerminal()) {
    return usageError("no prompt: pass one in quotes or pipe it in");
  }
  const std::string limit = std::to_string(BoundedText::maximumLength) + " characters";
  auto prompt = fromInput ? readStandardInput(limit) : arguments.positionals().front();
  if (!prompt) return prompt;
  if (!Unicode::isValidUTF8(*prompt)) return usageError("the prompt is not UTF-8 text");
  if (Unicode::trimmed(*prompt).empty()) return usageError("the prompt is empty");
  return prompt;
}

std::expected<GenerationTimeout, UsageError> readTimeout(const Arguments& arguments) {
  const auto text = arguments.value(timeoutOption.name);
  if (!text) return GenerationTimeout();
  const auto seconds = parseNumber<std::int64_t>(*text);
  if (seconds) return GenerationTimeout(*seconds);
  const bool isOutOfRange = !text->empty() && text->find_first_not_of("-0123456789") == text->npos;
  return usageError(isOutOfRange
                        ? timeoutRange() + ", not " + safeLine(*text)
                        : "--timeout \"" + safeLine(*text) + "\" is not a whole number of seconds");
}

std::expected<GenerationRequest, UsageError> readRequest(const Arguments& arguments) {
  const auto engineName = arguments.value(engineOption.name);
  if (!engineName) {
    return usageError("missing option: --engine claudeCode or --engine codex");
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
  std::string subject = "the instructions contain";
  try {
    const GenerationShape shape = generationShape(shapeName);
    const auto timeout = readTimeout(arguments);
    if (!timeout) return std::unexpected(timeout.error());
    const auto prompt = readPrompt(arguments);
    if (!prompt) return std::unexpected(prompt.error());
    BoundedText boundedInstructions(instructions, GenerationRequest::instructionsLimit);
    subject = "the prompt contains";
    return GenerationRequest(id, *engine, shape, std::move(boundedInstructions),
                             BoundedText(*prompt), *timeout);
  } catch (const GenerationDTOError& error) {
    if (error.kind() == GenerationDTOError::Kind::unknownShape) {
      return usageError("unknown shape \"" + safeLine(shapeName) +
                        "\": use freeText or itemFields");
    }
    return usageError(explainLimit(error, subject));
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
    const std::string text = Console::safeText(result.text);
    print(text);
    if (!text.ends_with('\n')) print("\n");
  }
  if (!Console::errorIsTerminal()) return;
  std::string footer =
      std::string(wireValue(result.engine)) + ", " + humanMilliseconds(result.durationMilliseconds);
  if (result.tokens) {
    footer += ", " + std::to_string(result.tokens->input) + " tokens in (" +
              std::to_string(result.tokens->cachedInput) + " cached), " +
              std::to_string(result.tokens->output) + " out";
  }
  Console::flushOutput();
  Console::printToError(Console::styledForError(Console::Style::dim, footer) + "\n");
}

ExitStatus showGeneration(CallReply reply, const GenerationRequest& request,
                          const Arguments& arguments) {
  if (!reply && !arguments.has(jsonOption.name)) {
    reply = std::unexpected(explainGenerationError(reply.error(), request.engine()));
  }
  return showReply<GenerationResult>(reply, arguments, showResult,
                                     [&request](const GenerationResult& result) {
                                       return result.requestID == request.requestID();
                                     });
}

}  // namespace

CommandResult runGenerate(const Arguments& arguments) {
  const auto request = readRequest(arguments);
  if (!request) return std::unexpected(request.error());
  const auto transport = openTransport();
  if (!transport) return reportError(transport.error(), arguments.has(jsonOption.name));
  if (Console::errorIsTerminal()) {
    Console::printToError(Console::styledForError(Console::Style::dim,
                                                  "generation " + request->requestID().string()) +
                          "\n");
  }
  auto [reply, signal] = runGeneration(**transport, *request);
  const ExitStatus status = showGeneration(std::move(reply), *request, arguments);
  if (signal) {
    if (const int error = Console::flushOutput()) {
      reportOutputError(error, arguments.has(jsonOption.name));
    }
    dieBySignal(*signal);
  }
  return status;
}

}  // namespace tessaloom
