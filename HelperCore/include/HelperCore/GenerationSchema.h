#pragma once

#include <string_view>

#include "HelperProtocol/GenerationEnums.h"

namespace tessaloom {

/// The JSON schema that constrains an engine's answer.
namespace GenerationSchema {

/// Compact JSON: 267 characters for `freeText`, 642 for `itemFields`.
std::string_view text(GenerationShape shape);
}  // namespace GenerationSchema

}  // namespace tessaloom
