#pragma once

#include <string_view>

namespace tessaloom {

/// Writes all of the text to standard error at once; what cannot be written is lost.
void writeToStandardError(std::string_view text);

}  // namespace tessaloom
