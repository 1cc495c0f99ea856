#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "HelperProtocol/GenerationErrorPayload.h"
#include "HelperProtocol/GenerationResult.h"
#include "HelperProtocol/JSONReader.h"

namespace tessaloom {

/// What an engine answered.
struct ParsedGeneration {
  std::string text;
  std::optional<GeneratedFields> fields;   ///< For the shape `itemFields` only.
  std::optional<GenerationTokens> tokens;  ///< nullopt if the engine reported no usage.

  friend bool operator==(const ParsedGeneration&, const ParsedGeneration&) = default;
};

/// Turns what an engine printed into an answer or a failure. Output is valid UTF-8 text (repaired
/// by the runner), and is read in memory proportional to what is kept of it. Pure functions, safe
/// from any thread; every failure's detail is one line of at most 500 Unicode scalars.
namespace GenerationOutputParser {

using Result = std::expected<ParsedGeneration, GenerationErrorPayload>;

/// One JSON object on standard output.
Result parseClaude(std::string_view output, GenerationShape shape, GenerationEngineID engine);

/// JSON Lines events on standard output.
Result parseCodex(std::string_view output, GenerationShape shape, GenerationEngineID engine);

/// How the detail of a failure ends whose engine refused the options that it was given.
inline constexpr std::string_view refusedOptionsAdvice = "Update it, or choose another engine.";

/// The failure for a run that ended with a non-zero status, from the tail of its standard error.
GenerationErrorPayload classifyFailure(std::int32_t exitCode, std::string_view diagnostic,
                                       GenerationEngineID engine);

/// Whether the text holds one of the markers of an engine that is not signed in, in any letter
/// case.
bool looksUnauthenticated(std::string_view text);

/// The text without a code fence around the whole of it, trimmed.
std::string stripCodeFence(std::string_view text);

/// The fields of an already parsed JSON value.
std::expected<GeneratedFields, GenerationErrorPayload> decodeFields(const JSONText& value,
                                                                    GenerationEngineID engine);

}  // namespace GenerationOutputParser

}  // namespace tessaloom
