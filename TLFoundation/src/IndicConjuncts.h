#pragma once

#include <string_view>

namespace tessaloom {

/// Whether the consonant `next` belongs to the user-perceived character so far because that ends
/// with a consonant and marks, one of which links the two (UAX #29, GB9c, as of Unicode 17).
///
/// utf8proc has this rule from 2.9 on, and for all of these scripts from 2.11 on; with the older
/// ones, and for what they do not join, it must be asked for too.
bool joinsConjunct(std::string_view character, char32_t next);

}  // namespace tessaloom
