#pragma once

#include <string_view>

namespace tessaloom {

/// Writes "helper: ", the text cleaned to one line, and a line feed to standard error, at once, so
/// that lines of several threads do not mix. Failures are ignored.
void writeHelperLine(std::string_view text);

}  // namespace tessaloom
