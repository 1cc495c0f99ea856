#pragma once

#include <string_view>

#include "HelperProtocol/GenerationEnums.h"

/// The JSON schema that constrains an engine's answer.
namespace tessaloom::GenerationSchema {

/// Compact JSON: 267 characters for `freeText`, 642 for `itemFields`.
std::string_view text(GenerationShape shape);

}  // namespace tessaloom::GenerationSchema
