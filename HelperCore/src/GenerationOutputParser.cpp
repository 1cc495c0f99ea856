#include "HelperCore/GenerationOutputParser.h"

#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "HelperCore/BinaryAllowlist.h"
#include "HelperProtocol/CodingError.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/HelperCoding.h"
#include "HelperProtocol/JSONReader.h"
#include "TLFoundation/Unicode.h"

namespace tessaloom {
namespace {

/// The bare "401" is deliberate, although it matches any text with these digits.
constexpr std::array<std::string_view, 8> authenticationMarkers{
    "not logged in", "/login", "please run /login", "not authenticated", "invalid api key",
    "unauthorized",  "401",    "credentials"};

constexpr std::array<std::string_view, 3> refusalMarkers{"unknown option", "unexpected argument",
                                                         "unrecognized"};

constexpr std::string_view fence = "```";

bool containsAny(std::string_view text, std::span<const std::string_view> markers) {
  return std::ranges::any_of(markers,
                             [text](std::string_view marker) { return text.contains(marker); });
}

std::unexpected<GenerationErrorPayload> malformed(GenerationEngineID engine, const char* detail) {
  return std::unexpected(
      GenerationErrorPayload::withDetail(GenerationFailureKind::malformedOutput, engine, detail));
}

/// The failure that an engine declared inside its output, although its status was 0.
std::unexpected<GenerationErrorPayload> declared(GenerationEngineID engine, std::string_view text,
                                                 const std::string& detail) {
  const GenerationFailureKind kind = GenerationOutputParser::looksUnauthenticated(text)
                                         ? GenerationFailureKind::notAuthenticated
                                         : GenerationFailureKind::nonZeroExit;
  return std::unexpected(GenerationErrorPayload::withDetail(kind, engine, detail));
}

// Slots keep what they received; what is missing or of another type counts as absent.

bool isTrue(const JSONSlot& slot) {
  const bool* value = slot.get<bool>();
  return value != nullptr && *value;
}

/// A count of tokens: 0 for what is not an integer, does not fit or is negative.
std::int64_t countOf(const JSONSlot& slot) {
  const auto* count = slot.get<std::int64_t>();
  return count != nullptr ? std::max(*count, std::int64_t{0}) : 0;
}

/// An object with counts of tokens.
struct UsageSlots {
  explicit UsageSlots(std::string_view cachedInputKey)
      : object{
            {"input_tokens", &input}, {"output_tokens", &output}, {cachedInputKey, &cachedInput}} {}

  std::optional<GenerationTokens> tokens() const {
    if (!object.is(JSONContainer::object)) return std::nullopt;
    return GenerationTokens{
        .input = countOf(input), .output = countOf(output), .cachedInput = countOf(cachedInput)};
  }

  JSONSlot input;
  JSONSlot output;
  JSONSlot cachedInput;
  JSONObject object;
};

/// The text under "content" of the object, without its code fence; nullopt if it is only white
/// space.
std::optional<std::string> usableContent(std::string_view answer) {
  JSONSlot content;
  JSONObject object{{"content", &content}};
  if (JSONReader::read(answer, object)) return std::nullopt;
  const auto* text = content.get<std::string>();
  if (text == nullptr || Unicode::trimmed(*text).empty()) return std::nullopt;
  return GenerationOutputParser::stripCodeFence(*text);
}

std::optional<GeneratedFields> decodedFields(const std::string& text) {
  try {
    return HelperCoding::makeDecoder().decode<GeneratedFields>(text);
  } catch (const DecodingError&) {
    return std::nullopt;
  } catch (const GenerationDTOError&) {
    return std::nullopt;
  }
}

/// What codex printed; of each kind of event the last one counts.
class EventStream {
 public:
  void read(std::string_view output) {
    while (!output.empty()) {
      const std::size_t end = output.find('\n');
      readLine(output.substr(0, end));
      output.remove_prefix(end == std::string_view::npos ? output.size() : end + 1);
    }
  }

  std::optional<std::string> message;
  std::optional<std::string> failure;
  std::optional<GenerationTokens> tokens;

 private:
  /// Most lines that are not events are not objects either, which is cheap to detect.
  static bool maybeObject(std::string_view line) {
    constexpr std::string_view jsonSpace = " \t\r";
    const std::size_t first = line.find_first_not_of(jsonSpace);
    if (first == std::string_view::npos) return false;
    return line[first] == '{' && line[line.find_last_not_of(jsonSpace)] == '}';
  }

  void readLine(std::string_view line) {
    if (!maybeObject(line) || JSONReader::read(line, event_)) return;
    const auto* type = type_.get<std::string>();
    if (type == nullptr) return;
    if (*type == "item.completed") {
      const auto* itemType = itemType_.get<std::string>();
      if (itemType != nullptr && *itemType == "agent_message") keep(message, itemText_);
    } else if (*type == "turn.completed") {
      if (const auto used = usage_.tokens()) tokens = used;
    } else if (*type == "turn.failed" || *type == "error") {
      if (!keep(failure, errorMessage_)) keep(failure, topMessage_);
    }
  }

  static bool keep(std::optional<std::string>& kept, const JSONSlot& slot) {
    const auto* text = slot.get<std::string>();
    if (text != nullptr) kept = *text;
    return text != nullptr;
  }

  JSONSlot type_;
  JSONSlot itemType_;
  JSONSlot itemText_;
  JSONObject item_{{"type", &itemType_}, {"text", &itemText_}};
  UsageSlots usage_{"cached_input_tokens"};
  JSONSlot errorMessage_;
  JSONObject error_{{"message", &errorMessage_}};
  JSONSlot topMessage_;
  JSONObject event_{{"type", &type_},
                    {"item", &item_},
                    {"usage", &usage_.object},
                    {"error", &error_},
                    {"message", &topMessage_}};
};

/// What an engine generated: `content` as it printed it, which is `structured` when it has fields.
GenerationOutputParser::Result generation(std::string_view content, const JSONText& structured,
                                          GenerationShape shape,
                                          std::optional<GenerationTokens> tokens,
                                          GenerationEngineID engine) {
  if (shape == GenerationShape::freeText) {
    auto text = usableContent(content);
    if (!text) return malformed(engine, "The command returned no usable content.");
    return ParsedGeneration{.text = *std::move(text), .fields = {}, .tokens = tokens};
  }
  auto fields = GenerationOutputParser::decodeFields(structured, engine);
  if (!fields) return std::unexpected(std::move(fields.error()));
  return ParsedGeneration{
      .text = std::string(content), .fields = *std::move(fields), .tokens = tokens};
}

}  // namespace

bool GenerationOutputParser::looksUnauthenticated(std::string_view text) {
  return containsAny(Unicode::lowercased(text), authenticationMarkers);
}

GenerationErrorPayload GenerationOutputParser::classifyFailure(std::int32_t exitCode,
                                                               std::string_view diagnostic,
                                                               GenerationEngineID engine) {
  const std::string lowercased = Unicode::lowercased(diagnostic);
  if (containsAny(lowercased, authenticationMarkers))
    return GenerationErrorPayload::withDetail(GenerationFailureKind::notAuthenticated, engine,
                                              std::string(diagnostic), exitCode);
  // The kind engineRefused means the helper's own refusal; this one only has another wording.
  const std::string detail = containsAny(lowercased, refusalMarkers)
                                 ? "This version of " + std::string(executableName(engine)) +
                                       " didn't accept the options Tessaloom uses. " +
                                       std::string(refusedOptionsAdvice)
                                 : std::string(diagnostic);
  return GenerationErrorPayload::withDetail(GenerationFailureKind::nonZeroExit, engine, detail,
                                            exitCode);
}

std::string GenerationOutputParser::stripCodeFence(std::string_view text) {
  const std::string_view trimmed = Unicode::trimmed(text);
  const std::size_t firstLineFeed = trimmed.find('\n');
  if (firstLineFeed == std::string_view::npos || !trimmed.starts_with(fence) ||
      !trimmed.ends_with(fence))
    return std::string(trimmed);

  const std::string_view information = trimmed.substr(fence.size(), firstLineFeed - fence.size());
  if (information.contains('`')) return std::string(trimmed);

  std::string_view content = trimmed.substr(firstLineFeed + 1);
  content = content.substr(0, content.rfind(fence));
  return std::string(Unicode::trimmed(content));
}

std::expected<GeneratedFields, GenerationErrorPayload> GenerationOutputParser::decodeFields(
    const JSONText& value, GenerationEngineID engine) {
  if (!value.isContainer())
    return malformed(engine, "The command's structured output could not be read.");
  std::optional<GeneratedFields> fields = decodedFields(value.text());
  if (!fields)
    return malformed(engine, "The command's structured output didn't match the expected fields.");
  return *std::move(fields);
}

GenerationOutputParser::Result GenerationOutputParser::parseClaude(std::string_view output,
                                                                   GenerationShape shape,
                                                                   GenerationEngineID engine) {
  const std::string_view trimmed = Unicode::trimmed(output);
  if (trimmed.empty()) return malformed(engine, "The command produced no output.");

  JSONSlot isError;
  JSONSlot apiError;
  JSONSlot result;
  UsageSlots usage("cache_read_input_tokens");
  JSONText structured;
  JSONObject answer{{"is_error", &isError},
                    {"api_error_status", &apiError},
                    {"result", &result},
                    {"usage", &usage.object},
                    {"structured_output", &structured}};
  if (JSONReader::read(trimmed, answer) || !answer.is(JSONContainer::object))
    return malformed(engine, "The command's output was not valid JSON.");

  if (isTrue(isError) || !apiError.isAbsent()) {
    const auto* text = result.get<std::string>();
    if (text == nullptr || text->empty())
      return declared(engine, "", "The command reported an error.");
    return declared(engine, *text, *text);
  }

  if (shape != GenerationShape::freeText && structured.text().empty())
    return malformed(engine, "The command returned no structured output.");
  return generation(structured.text(), structured, shape, usage.tokens(), engine);
}

GenerationOutputParser::Result GenerationOutputParser::parseCodex(std::string_view output,
                                                                  GenerationShape shape,
                                                                  GenerationEngineID engine) {
  EventStream events;
  events.read(output);
  if (events.failure) return declared(engine, *events.failure, *events.failure);
  const std::string_view message =
      events.message ? Unicode::trimmed(*events.message) : std::string_view();
  if (message.empty()) return malformed(engine, "The command returned no message.");

  JSONText answer;
  if (shape != GenerationShape::freeText &&
      (JSONReader::read(message, answer) ||
       !answer.isContainer()))  // A bare string is not a message.
    return malformed(engine, "The command's structured output was not valid JSON.");
  return generation(message, answer, shape, events.tokens, engine);
}

}  // namespace tessaloom
