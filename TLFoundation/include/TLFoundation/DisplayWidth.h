#pragma once

#include <cstddef>
#include <string_view>

/// How many columns text fills on a terminal, where most characters fill one, wide ones (CJK, most
/// emoji) two and combining marks none. Text is UTF-8; an ill-formed part counts as U+FFFD. Pure
/// functions, safe from any thread; linear in the length of the text.
namespace tessaloom {

/// The columns that the text fills. Control characters fill none.
std::size_t displayWidth(std::string_view text);

/// The longest start of the text that fills at most `columns` and ends between two user-perceived
/// characters.
std::string_view prefixOfWidth(std::string_view text, std::size_t columns);

}  // namespace tessaloom
