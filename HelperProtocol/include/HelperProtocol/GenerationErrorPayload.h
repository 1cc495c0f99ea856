#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "HelperProtocol/GenerationEnums.h"
#include "TLFoundation/HashFields.h"

namespace tessaloom {

/// The one failure type of the generation pipeline.
struct GenerationErrorPayload {
  GenerationFailureKind kind;
  GenerationEngineID engine;
  /// The engine's exit status where it decided the failure.
  std::optional<std::int32_t> exitCode = std::nullopt;
  /// For the user; as the helper sends it one line of at most `detailLimit` scalars, which is not
  /// checked when read.
  std::optional<std::string> detail = std::nullopt;

  static constexpr std::int64_t detailLimit = 500;  ///< Unicode scalars.

  /// A failure with `detail` cleaned to one line and cut to `detailLimit`.
  static GenerationErrorPayload withDetail(GenerationFailureKind kind, GenerationEngineID engine,
                                           const std::string& detail,
                                           std::optional<std::int32_t> exitCode = std::nullopt);

  friend bool operator==(const GenerationErrorPayload&, const GenerationErrorPayload&) = default;
  std::size_t hash() const noexcept { return hashFields(kind, engine, exitCode, detail); }
};

}  // namespace tessaloom
