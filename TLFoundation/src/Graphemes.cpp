#include "Graphemes.h"

#include <utf8proc.h>

#include "UTF8.h"

namespace tessaloom {

namespace {

utf8proc_boundclass_t boundClass(char32_t scalar) {
  const auto* property = utf8proc_get_property(static_cast<utf8proc_int32_t>(scalar));
  return static_cast<utf8proc_boundclass_t>(property->boundclass);
}

/// Whether a scalar joins the one after it by no rule of its own (GB3 to GB8, GB9b to GB13).
/// Letters from U+0900 on may be Indic consonants, which newer versions of Unicode join (GB9c),
/// except where there are none: in the blocks from CJK radicals to Hangul.
bool isOrdinary(char32_t scalar) {
  return (scalar < 0x0900 || (scalar >= 0x2E80 && scalar < 0xA000)) &&
         boundClass(scalar) == UTF8PROC_BOUNDCLASS_OTHER;
}

/// After an ordinary scalar come only those that join what is before them (GB9, GB9a).
std::size_t endAfterOrdinary(std::string_view text, std::size_t position) {
  while (position < text.size() && !UTF8::isASCII(text[position])) {
    const auto next = UTF8::decode(text, position);
    const auto type = boundClass(next.scalar);
    if (type != UTF8PROC_BOUNDCLASS_EXTEND && type != UTF8PROC_BOUNDCLASS_ZWJ &&
        type != UTF8PROC_BOUNDCLASS_SPACINGMARK) {
      break;
    }
    position += next.length;
  }
  return position;
}

}  // namespace

std::size_t endOfCharacter(std::string_view text, std::size_t start) {
  std::size_t end = start;
  // There is always a boundary between two ASCII characters, except CR LF (UAX #29, GB3).
  if (UTF8::isASCII(text[start])) {
    end = start + 1;
    if (end == text.size()) return end;
    if (UTF8::isASCII(text[end])) return text[start] == '\r' && text[end] == '\n' ? end + 1 : end;
  }

  auto current = UTF8::decode(text, start);
  if (isOrdinary(current.scalar)) return endAfterOrdinary(text, start + current.length);
  utf8proc_int32_t state = 0;
  for (end = start + current.length; end < text.size(); end += current.length) {
    const auto previous = static_cast<utf8proc_int32_t>(current.scalar);
    current = UTF8::decode(text, end);
    if (utf8proc_grapheme_break_stateful(previous, static_cast<utf8proc_int32_t>(current.scalar),
                                         &state)) {
      break;
    }
  }
  return end;
}

}  // namespace tessaloom
