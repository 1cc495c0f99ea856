// Reads the input as what each engine printed, in both shapes, as a failed run's diagnostic, and as
// a text that may be fenced.

#include "HelperCore/GenerationOutputParser.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "HelperProtocol/HelperCoding.h"
#include "Require.h"
#include "TLFoundation/DisplayString.h"
#include "TLFoundation/Unicode.h"

using namespace tessaloom;

namespace {

void checkFailure(const GenerationErrorPayload& failure, GenerationEngineID engine) {
  REQUIRE(failure.engine == engine);
  REQUIRE(failure.detail.has_value());
  REQUIRE(Unicode::isValidUTF8(*failure.detail));
  REQUIRE(DisplayString::singleLine(*failure.detail, GenerationErrorPayload::detailLimit) ==
          *failure.detail);
}

/// What holds for every answer, whatever the engine printed.
void checkResult(const GenerationOutputParser::Result& result, GenerationShape shape,
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

void checkClaude(const std::string& text, GenerationShape shape) {
  constexpr auto engine = GenerationEngineID::claudeCode;
  const auto result = GenerationOutputParser::parseClaude(text, shape, engine);
  checkResult(result, shape, engine);
  REQUIRE(GenerationOutputParser::parseClaude("\u2003\n" + text + "\n", shape, engine) == result);
}

void checkCodex(const std::string& text, GenerationShape shape) {
  constexpr auto engine = GenerationEngineID::codex;
  const auto result = GenerationOutputParser::parseCodex(text, shape, engine);
  checkResult(result, shape, engine);
  // Lines that are not events change nothing.
  REQUIRE(GenerationOutputParser::parseCodex("[]\n\n" + text + "\n{", shape, engine) == result);
  // The last failure wins over everything before it.
  const auto failed = GenerationOutputParser::parseCodex(
      text + "\n{\"type\":\"error\",\"message\":\"quota\"}", shape, engine);
  REQUIRE(!failed && failed.error().detail == "quota");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // As the runner makes it of what an engine printed.
  const auto text =
      Unicode::repairUTF8(std::string_view(reinterpret_cast<const char*>(data), size));
  for (const GenerationShape shape : allGenerationShapes) {
    checkClaude(text, shape);
    checkCodex(text, shape);
  }

  constexpr auto engine = GenerationEngineID::claudeCode;
  const auto failure = GenerationOutputParser::classifyFailure(1, text, engine);
  checkFailure(failure, engine);
  REQUIRE(failure.exitCode == 1);
  REQUIRE((failure.kind == GenerationFailureKind::notAuthenticated) ==
          GenerationOutputParser::looksUnauthenticated(text));

  const std::string stripped = GenerationOutputParser::stripCodeFence(text);
  REQUIRE(text.find(stripped) != std::string::npos);
  REQUIRE(Unicode::trimmed(stripped) == stripped);
  return 0;
}
