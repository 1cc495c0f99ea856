#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

#include "HelperProtocol/GenerationErrorPayload.h"
#include "HelperProtocol/GenerationResult.h"

namespace tessaloom {

/// What an engine answered.
struct ParsedGeneration {
  std::string text;
  std::optional<GeneratedFields> fields;   ///< For the shape `itemFields` only.
  std::optional<GenerationTokens> tokens;  ///< Nothing when the engine told no usage.

  friend bool operator==(const ParsedGeneration&, const ParsedGeneration&) = default;
};

/// Turns what an engine printed into an answer or a failure. Output is valid UTF-8 text (repaired
/// by the runner). Pure functions, safe from any thread; every failure's detail is one line of at
/// most 500 Unicode scalars.
struct GenerationOutputParser {
  GenerationOutputParser() = delete;

  using Result = std::expected<ParsedGeneration, GenerationErrorPayload>;

  /// One JSON object on standard output.
  static Result parseClaude(std::string_view output, GenerationShape shape,
                            GenerationEngineID engine);

  /// JSON Lines events on standard output.
  static Result parseCodex(std::string_view output, GenerationShape shape,
                           GenerationEngineID engine);

  /// The failure for a run that ended with a non-zero status, from the tail of its standard error.
  static GenerationErrorPayload classifyFailure(std::int32_t exitCode, std::string_view diagnostic,
                                                GenerationEngineID engine);

  /// Whether the text holds one of the markers of an engine that is not signed in, in any letter
  /// case.
  static bool looksUnauthenticated(std::string_view text);

  /// The text without a code fence around the whole of it, trimmed.
  static std::string stripCodeFence(std::string_view text);

  /// The fields of an already parsed JSON value.
  static std::expected<GeneratedFields, GenerationErrorPayload> decodeFields(
      const nlohmann::json& value, GenerationEngineID engine);
};

}  // namespace tessaloom
