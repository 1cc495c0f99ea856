#pragma once

#include <string_view>

#include "HelperProtocol/GenerationEnums.h"

namespace tessaloom {

/// The JSON schema that constrains an engine's answer.
struct GenerationSchema {
  GenerationSchema() = delete;

  /// Compact JSON: 267 characters for `freeText`, 642 for `itemFields`.
  static std::string_view text(GenerationShape shape);
};

}  // namespace tessaloom
