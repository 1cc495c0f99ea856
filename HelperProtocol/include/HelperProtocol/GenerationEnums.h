#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace tessaloom {

/// The engines, each with its wire value.
enum class GenerationEngineID : std::uint8_t { claudeCode, codex };
inline constexpr std::array allGenerationEngineIDs{GenerationEngineID::claudeCode,
                                                   GenerationEngineID::codex};
/// The wire value: "claudeCode" or "codex".
std::string_view wireValue(GenerationEngineID engine);
/// Throws GenerationDTOError::unknownEngine.
GenerationEngineID generationEngineID(std::string_view wireValue);

/// What the engine is asked to return.
enum class GenerationShape : std::uint8_t { freeText, itemFields };
inline constexpr std::array allGenerationShapes{GenerationShape::freeText,
                                                GenerationShape::itemFields};
/// The wire value: "freeText" or "itemFields".
std::string_view wireValue(GenerationShape shape);
/// Throws GenerationDTOError::unknownShape.
GenerationShape generationShape(std::string_view wireValue);

/// Why a generation failed. The wire value is the case's name.
enum class GenerationFailureKind : std::uint8_t {
  binaryNotFound,
  notAuthenticated,
  launchFailed,
  timedOut,
  cancelled,
  nonZeroExit,
  malformedOutput,
  engineRefused,
};
inline constexpr std::array allGenerationFailureKinds{
    GenerationFailureKind::binaryNotFound,  GenerationFailureKind::notAuthenticated,
    GenerationFailureKind::launchFailed,    GenerationFailureKind::timedOut,
    GenerationFailureKind::cancelled,       GenerationFailureKind::nonZeroExit,
    GenerationFailureKind::malformedOutput, GenerationFailureKind::engineRefused};
std::string_view wireValue(GenerationFailureKind kind);

}  // namespace tessaloom
