#include "TLFoundation/DisplayString.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "UTF8.h"

namespace tessaloom {
namespace {

enum class Lines { one, several };

/// The 17 scalars that show nothing and can reorder or split what is shown.
bool isInvisible(char32_t scalar) {
  return (scalar >= 0x200B && scalar <= 0x200F) ||  // zero-width, directional marks
         (scalar >= 0x2028 && scalar <= 0x202E) ||  // separators, embeddings, overrides
         (scalar >= 0x2066 && scalar <= 0x2069) ||  // isolates
         scalar == 0xFEFF;                          // byte order mark
}

bool isDropped(char32_t scalar, Lines lines) {
  if (scalar < 0x20) return lines == Lines::one || (scalar != '\t' && scalar != '\n');
  if (scalar >= 0x7F && scalar <= 0x9F) return true;
  return isInvisible(scalar);
}

bool isPrintableASCII(char byte) {
  return byte >= 0x20 && byte < 0x7F;
}

std::size_t checkedLimit(std::int64_t limit) {
  if (limit < 0) {
    static_cast<void>(std::fputs("a display limit is negative\n", stderr));
    std::abort();
  }
  return static_cast<std::size_t>(limit);
}

std::string cleaned(std::string_view text, std::int64_t limit, Lines lines) {
  std::size_t room = checkedLimit(limit);
  std::string result;
  result.reserve(std::min(text.size(), room));
  std::size_t position = 0;
  while (true) {
    const std::size_t runLimit = std::min(text.size() - position, room);
    std::size_t run = 0;
    while (run < runLimit && isPrintableASCII(text[position + run])) ++run;
    result.append(text, position, run);
    position += run;
    room -= run;
    if (position == text.size() || room == 0) return result;

    const auto next = UTF8::decode(text, position);
    position += next.length;
    if (isDropped(next.scalar, lines)) continue;
    UTF8::append(result, next.scalar);
    --room;
  }
}

}  // namespace

std::string DisplayString::singleLine(std::string_view text, std::int64_t limit) {
  return cleaned(text, limit, Lines::one);
}

std::string DisplayString::multiLine(std::string_view text, std::int64_t limit) {
  return cleaned(text, limit, Lines::several);
}

}  // namespace tessaloom
