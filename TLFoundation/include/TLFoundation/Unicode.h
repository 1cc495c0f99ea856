#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// The few Unicode operations that the records and the engine output need. All text is UTF-8; a NUL
/// is a character like any other. Pure functions, safe from any thread; linear in the length of the
/// text.
namespace tessaloom::Unicode {

/// Whether the bytes are well-formed UTF-8 (no surrogates, no overlong forms, nothing above
/// U+10FFFF).
bool isValidUTF8(std::string_view bytes);

/// The bytes as UTF-8 text, with one U+FFFD for each maximal ill-formed part (Unicode 15,
/// section 3.9, "Substitution of Maximal Subparts").
std::string repairUTF8(std::string_view bytes);

/// The first scalar of a text that is not empty, or the ill-formed part that it begins with.
std::string_view firstScalar(std::string_view text);

/// The number of user-perceived characters (extended grapheme clusters, UAX #29) of a valid text.
/// CR LF is one. The rules and the conjuncts of Indic scripts (GB9c) are those of Unicode 17; the
/// other properties are those of the Unicode version of the utf8proc that is installed, for which a
/// scalar that it does not know is an ordinary one.
std::size_t characterCount(std::string_view text);

/// The last `count` user-perceived characters of a valid text, or all of it when it is shorter.
/// Costs memory and time in proportion to the text, never to `count`.
std::string_view lastCharacters(std::string_view text, std::size_t count);

/// The text without white space (the White_Space property: spaces, TAB, line feeds and separators)
/// at both ends.
std::string_view trimmed(std::string_view text);

/// The text in lower case by full mapping and without context: U+0130 becomes i and U+0307, and a
/// capital sigma at the end of a word becomes U+03C3.
std::string lowercased(std::string_view text);

}  // namespace tessaloom::Unicode
