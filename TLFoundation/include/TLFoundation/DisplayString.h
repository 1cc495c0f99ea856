#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// Cleans and bounds text from outside before the editor shows it.
///
/// Removed wherever they occur: the controls U+0000 to U+001F and U+007F to U+009F, and the 17
/// invisible characters (zero-width, bidirectional controls, line and paragraph separator, byte
/// order mark). Everything else is kept in order, U+00A0 and U+00AD included.
///
/// Text is UTF-8; each maximal ill-formed part counts and is returned as one U+FFFD, so the result
/// is always valid UTF-8. Lengths are counted in Unicode scalars. A cut leaves no mark and may fall
/// between a letter and its combining accent.
///
/// Pure functions, safe from any thread, one pass over the text. No text makes them fail; a
/// negative limit aborts the process.
namespace tessaloom::DisplayString {

/// The text for a one-line display, at most `limit` scalars: TAB, LF and CR are removed too.
std::string singleLine(std::string_view text, std::int64_t limit);

/// The text for a display of several lines, at most `limit` scalars: TAB and LF stay, CR is
/// removed.
std::string multiLine(std::string_view text, std::int64_t limit);

}  // namespace tessaloom::DisplayString
