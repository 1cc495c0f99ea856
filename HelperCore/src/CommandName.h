#pragma once

#include <string>
#include <string_view>

#include "TLFoundation/Unicode.h"

namespace tessaloom {

/// A kernel name as text: the part before the first NUL, repaired to valid UTF-8.
inline std::string commandName(std::string_view bytes) {
  return Unicode::repairUTF8(bytes.substr(0, bytes.find('\0')));
}

}  // namespace tessaloom
