#pragma once

#include <cstddef>
#include <string_view>

namespace tessaloom {

/// The end of the user-perceived character (extended grapheme cluster) that starts at `start`,
/// which must itself be a boundary inside the text. An ill-formed part counts as U+FFFD.
std::size_t endOfCharacter(std::string_view text, std::size_t start);

}  // namespace tessaloom
