#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "HelperProtocol/GenerationEnums.h"
#include "TLFoundation/HashFields.h"

namespace tessaloom {

struct EngineStatusRequest {
  GenerationEngineID engine;

  friend bool operator==(const EngineStatusRequest&, const EngineStatusRequest&) = default;
  std::size_t hash() const noexcept { return hashFields(engine); }
};

/// Whether an engine is installed, and which version. Absent fields have no key on the wire.
struct EngineStatus {
  GenerationEngineID engine;
  bool binaryFound;
  std::optional<bool> authenticated;  ///< Unknown when absent; the helper never probes it.
  /// As the helper sends it one line of at most 64 Unicode scalars, which is not checked when read.
  std::optional<std::string> version;

  friend bool operator==(const EngineStatus&, const EngineStatus&) = default;
  std::size_t hash() const noexcept {
    return hashFields(engine, binaryFound, authenticated, version);
  }
};

}  // namespace tessaloom
