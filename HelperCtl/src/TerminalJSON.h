#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tessaloom {

enum class JSONLayout : std::uint8_t { asWritten, indented };

/// A JSON text as a terminal shows it, which is still JSON: with escapes for control and invisible
/// characters and, if the terminal lacks UTF-8, for all that are not ASCII. Another text without
/// what a terminal must not get. The text is from outside: time and memory are in proportion to its
/// length.
std::string terminalJSON(std::string_view text, JSONLayout layout, bool toASCII);

}  // namespace tessaloom
