#include "HelperCore/GenerationOutputParser.h"

#include <algorithm>
#include <array>
#include <limits>
#include <span>
#include <utility>

#include <nlohmann/json.hpp>

#include "HelperCore/BinaryAllowlist.h"
#include "HelperProtocol/CodingError.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/HelperCoding.h"
#include "HelperProtocol/StrictJSON.h"
#include "TLFoundation/Unicode.h"

namespace tessaloom {
namespace {

using nlohmann::json;

// The bare "401" is deliberate, although it meets any text with these digits.
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

// Access to what may be missing or of another type

const json* member(const json& object, const char* key) {
  const auto found = object.find(key);
  return found == object.end() ? nullptr : &*found;
}

const json* objectMember(const json& object, const char* key) {
  const json* value = member(object, key);
  return value != nullptr && value->is_object() ? value : nullptr;
}

const std::string* stringMember(const json& object, const char* key) {
  const json* value = member(object, key);
  return value != nullptr ? value->get_ptr<const json::string_t*>() : nullptr;
}

bool trueMember(const json& object, const char* key) {
  const json* value = member(object, key);
  return value != nullptr && value->is_boolean() && value->get<bool>();
}

/// A count of tokens: 0 for what is no integer, does not fit or is negative.
std::int64_t countMember(const json& object, const char* key) {
  const json* value = member(object, key);
  if (value == nullptr || !value->is_number_integer()) return 0;
  if (value->is_number_unsigned() &&
      value->get<std::uint64_t>() > std::uint64_t{std::numeric_limits<std::int64_t>::max()})
    return 0;
  return std::max(value->get<std::int64_t>(), std::int64_t{0});
}

/// The text under "content", when it is more than white space.
const std::string* usableContent(const json* answer) {
  if (answer == nullptr || !answer->is_object()) return nullptr;
  const std::string* content = stringMember(*answer, "content");
  return content != nullptr && !Unicode::trimmed(*content).empty() ? content : nullptr;
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

// Codex events

/// What a stream of events amounts to; of each kind the last one counts.
struct EventSummary {
  std::optional<std::string> message;
  std::optional<std::string> failure;
  std::optional<GenerationTokens> tokens;
};

void noteMessage(EventSummary& summary, const json& event) {
  const json* item = objectMember(event, "item");
  if (item == nullptr) return;
  const std::string* type = stringMember(*item, "type");
  if (type == nullptr || *type != "agent_message") return;
  if (const std::string* text = stringMember(*item, "text")) summary.message = *text;
}

void noteUsage(EventSummary& summary, const json& event) {
  const json* usage = objectMember(event, "usage");
  if (usage == nullptr) return;
  summary.tokens = GenerationTokens{.input = countMember(*usage, "input_tokens"),
                                    .output = countMember(*usage, "output_tokens"),
                                    .cachedInput = countMember(*usage, "cached_input_tokens")};
}

void noteFailure(EventSummary& summary, const json& event) {
  const json* error = objectMember(event, "error");
  const std::string* text = error != nullptr ? stringMember(*error, "message") : nullptr;
  if (text == nullptr) text = stringMember(event, "message");
  if (text != nullptr) summary.failure = *text;
}

/// What most lines that are no event are not, and costs next to nothing to see.
bool maybeObject(std::string_view line) {
  constexpr std::string_view jsonSpace = " \t\r";
  const std::size_t first = line.find_first_not_of(jsonSpace);
  if (first == std::string_view::npos) return false;
  return line[first] == '{' && line[line.find_last_not_of(jsonSpace)] == '}';
}

void note(EventSummary& summary, std::string_view line) {
  if (!maybeObject(line)) return;
  const std::optional<json> event = StrictJSON::parse(line);
  if (!event || !event->is_object()) return;
  const std::string* type = stringMember(*event, "type");
  if (type == nullptr) return;
  if (*type == "item.completed")
    noteMessage(summary, *event);
  else if (*type == "turn.completed")
    noteUsage(summary, *event);
  else if (*type == "turn.failed" || *type == "error")
    noteFailure(summary, *event);
}

EventSummary summaryOf(std::string_view output) {
  EventSummary summary;
  while (!output.empty()) {
    const std::size_t end = output.find('\n');
    note(summary, output.substr(0, end));
    output.remove_prefix(end == std::string_view::npos ? output.size() : end + 1);
  }
  return summary;
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
  const std::string detail =
      containsAny(lowercased, refusalMarkers)
          ? "This version of " + std::string(executableName(engine)) +
                " didn't accept the options Tessaloom uses. Update it, or choose another engine."
          : std::string(diagnostic);
  return GenerationErrorPayload::withDetail(GenerationFailureKind::nonZeroExit, engine, detail,
                                            exitCode);
}

std::string GenerationOutputParser::stripCodeFence(std::string_view text) {
  // Two fences and a line feed between them.
  constexpr std::size_t shortestFenced = 7;

  const std::string_view trimmed = Unicode::trimmed(text);
  const std::size_t firstLineFeed = trimmed.find('\n');
  if (firstLineFeed == std::string_view::npos || !trimmed.starts_with(fence) ||
      !trimmed.ends_with(fence) || Unicode::characterCount(trimmed) < shortestFenced)
    return std::string(trimmed);

  const std::string_view information = trimmed.substr(fence.size(), firstLineFeed - fence.size());
  if (information.contains('`')) return std::string(trimmed);

  std::string_view content = trimmed.substr(firstLineFeed + 1);
  content = content.substr(0, content.rfind(fence));
  return std::string(Unicode::trimmed(content));
}

std::expected<GeneratedFields, GenerationErrorPayload> GenerationOutputParser::decodeFields(
    const json& value, GenerationEngineID engine) {
  const std::optional<std::string> text = StrictJSON::serialise(value);
  if (!text) return malformed(engine, "The command's structured output could not be read.");
  std::optional<GeneratedFields> fields = decodedFields(*text);
  if (!fields)
    return malformed(engine, "The command's structured output didn't match the expected fields.");
  return *std::move(fields);
}

GenerationOutputParser::Result GenerationOutputParser::parseClaude(std::string_view output,
                                                                   GenerationShape shape,
                                                                   GenerationEngineID engine) {
  const std::string_view trimmed = Unicode::trimmed(output);
  if (trimmed.empty()) return malformed(engine, "The command produced no output.");
  const std::optional<json> answer = StrictJSON::parse(trimmed);
  if (!answer || !answer->is_object())
    return malformed(engine, "The command's output was not valid JSON.");

  const json* apiError = member(*answer, "api_error_status");
  if (trueMember(*answer, "is_error") || (apiError != nullptr && !apiError->is_null())) {
    const std::string* result = stringMember(*answer, "result");
    if (result == nullptr || result->empty())
      return declared(engine, "", "The command reported an error.");
    return declared(engine, *result, *result);
  }

  ParsedGeneration parsed;
  if (const json* usage = objectMember(*answer, "usage"))
    parsed.tokens = GenerationTokens{.input = countMember(*usage, "input_tokens"),
                                     .output = countMember(*usage, "output_tokens"),
                                     .cachedInput = countMember(*usage, "cache_read_input_tokens")};

  const json* structured = member(*answer, "structured_output");
  if (shape == GenerationShape::freeText) {
    const std::string* content = usableContent(structured);
    if (content == nullptr) return malformed(engine, "The command returned no usable content.");
    parsed.text = stripCodeFence(*content);
    return parsed;
  }

  if (structured == nullptr) return malformed(engine, "The command returned no structured output.");
  auto fields = decodeFields(*structured, engine);
  if (!fields) return std::unexpected(std::move(fields.error()));
  parsed.fields = *std::move(fields);
  parsed.text = StrictJSON::serialise(*structured).value_or("");
  return parsed;
}

GenerationOutputParser::Result GenerationOutputParser::parseCodex(std::string_view output,
                                                                  GenerationShape shape,
                                                                  GenerationEngineID engine) {
  const EventSummary summary = summaryOf(output);
  if (summary.failure) return declared(engine, *summary.failure, *summary.failure);
  const std::string_view message =
      summary.message ? Unicode::trimmed(*summary.message) : std::string_view();
  if (message.empty()) return malformed(engine, "The command returned no message.");

  const std::optional<json> answer = StrictJSON::parse(message);
  ParsedGeneration parsed{.text = {}, .fields = {}, .tokens = summary.tokens};
  if (shape == GenerationShape::freeText) {
    const std::string* content = usableContent(answer ? &*answer : nullptr);
    if (content == nullptr) return malformed(engine, "The command returned no usable content.");
    parsed.text = stripCodeFence(*content);
    return parsed;
  }

  if (!answer || !answer->is_structured())  // A bare string or number is no message.
    return malformed(engine, "The command's structured output was not valid JSON.");
  auto fields = decodeFields(*answer, engine);
  if (!fields) return std::unexpected(std::move(fields.error()));
  parsed.fields = *std::move(fields);
  parsed.text = message;
  return parsed;
}

}  // namespace tessaloom
