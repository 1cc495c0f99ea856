// Reads the input as what claude printed, in both shapes, as a failed run's diagnostic, and as a
// text that may be fenced.

#include "OutputProperties.h"

using namespace tessaloom;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr auto engine = GenerationEngineID::claudeCode;
  const std::string text = outputText(data, size);
  for (const GenerationShape shape : allGenerationShapes) {
    const auto result = GenerationOutputParser::parseClaude(text, shape, engine);
    checkResult(result, shape, engine);
    REQUIRE(GenerationOutputParser::parseClaude("\u2003\n" + text + "\n", shape, engine) == result);
  }

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
