#pragma once

#include <string_view>

namespace tessaloom {

/// Somebody who starts the helper to see what it is gets an answer on standard output instead of a
/// helper: true when `option` asks for one. `starter` is what starts the helper otherwise.
bool describeSelf(std::string_view option, std::string_view program, std::string_view starter);

}  // namespace tessaloom
