// Reads the input as the events that codex printed, in both shapes.

#include "OutputProperties.h"

using namespace tessaloom;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr auto engine = GenerationEngineID::codex;
  const std::string text = outputText(data, size);
  for (const GenerationShape shape : allGenerationShapes) {
    const auto result = GenerationOutputParser::parseCodex(text, shape, engine);
    checkResult(result, shape, engine);
    // Lines that are not events change nothing.
    REQUIRE(GenerationOutputParser::parseCodex("[]\n\n" + text + "\n{", shape, engine) == result);
    // The last failure wins over everything before it.
    const auto failed = GenerationOutputParser::parseCodex(
        text + "\n{\"type\":\"error\",\"message\":\"quota\"}", shape, engine);
    REQUIRE(!failed && failed.error().detail == "quota");
  }
  return 0;
}
