#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "HelperCore/GenerationOutputParser.h"
#include "HelperProtocol/HelperCoding.h"
#include "Require.h"
#include "TLFoundation/DisplayString.h"
#include "TLFoundation/Unicode.h"

namespace tessaloom {

/// The text that the runner makes of what an engine printed.
inline std::string outputText(const std::uint8_t* data, std::size_t size) {
  return Unicode::repairUTF8(std::string_view(reinterpret_cast<const char*>(data), size));
}

inline void checkFailure(const GenerationErrorPayload& failure, GenerationEngineID engine) {
  REQUIRE(failure.engine == engine);
  REQUIRE(failure.detail.has_value());
  REQUIRE(Unicode::isValidUTF8(*failure.detail));
  REQUIRE(DisplayString::singleLine(*failure.detail, GenerationErrorPayload::detailLimit) ==
          *failure.detail);
}

/// What holds for every answer, whatever the engine printed.
inline void checkResult(const GenerationOutputParser::Result& result, GenerationShape shape,
                        GenerationEngineID engine) {
  if (!result) {
    checkFailure(result.error(), engine);
    REQUIRE(!result.error().exitCode);
    return;
  }
  REQUIRE(Unicode::isValidUTF8(result->text));
  REQUIRE(Unicode::trimmed(result->text) == result->text);
  REQUIRE(result->fields.has_value() == (shape == GenerationShape::itemFields));
  if (result->fields) {
    // The text is the fields before they were cleaned.
    REQUIRE(HelperCoding::makeDecoder().decode<GeneratedFields>(result->text) == *result->fields);
  }
  if (const auto& tokens = result->tokens)
    REQUIRE(tokens->input >= 0 && tokens->output >= 0 && tokens->cachedInput >= 0);
}

}  // namespace tessaloom
