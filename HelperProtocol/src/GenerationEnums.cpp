#include "HelperProtocol/GenerationEnums.h"

#include <string>
#include <utility>

#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/WireValues.h"

namespace tessaloom {
namespace {

constexpr std::array<std::string_view, allGenerationEngineIDs.size()> engineValues{"claudeCode",
                                                                                   "codex"};
constexpr std::array<std::string_view, allGenerationShapes.size()> shapeValues{"freeText",
                                                                               "itemFields"};
constexpr std::array<std::string_view, allGenerationFailureKinds.size()> failureValues{
    "binaryNotFound", "notAuthenticated", "launchFailed",    "timedOut",
    "cancelled",      "nonZeroExit",      "malformedOutput", "engineRefused"};

}  // namespace

std::string_view wireValue(GenerationEngineID engine) {
  return engineValues.at(std::to_underlying(engine));
}

std::string_view wireValue(GenerationShape shape) {
  return shapeValues.at(std::to_underlying(shape));
}

std::string_view wireValue(GenerationFailureKind kind) {
  return failureValues.at(std::to_underlying(kind));
}

GenerationEngineID generationEngineID(std::string_view wireValue) {
  if (const auto engine = caseNamed(wireValue, allGenerationEngineIDs)) return *engine;
  throw GenerationDTOError::unknownEngine(std::string(wireValue));
}

GenerationShape generationShape(std::string_view wireValue) {
  if (const auto shape = caseNamed(wireValue, allGenerationShapes)) return *shape;
  throw GenerationDTOError::unknownShape(std::string(wireValue));
}

}  // namespace tessaloom
