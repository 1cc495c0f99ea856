#include "Graphemes.h"

#include <utf8proc.h>

#include "IndicConjuncts.h"
#include "UTF8.h"

namespace tessaloom {

namespace {

utf8proc_boundclass_t boundClass(char32_t scalar) {
  const auto* property = utf8proc_get_property(static_cast<utf8proc_int32_t>(scalar));
  return static_cast<utf8proc_boundclass_t>(property->boundclass);
}

/// Whether a scalar joins the one after it by no rule of its own (GB3 to GB8, GB9b to GB13).
/// Scalars from U+0900 on may be letters that GB9c joins, except from the CJK radicals to Hangul.
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

/// By the library's rules and GB9c, which its older versions lack.
std::size_t endAfter(UTF8::DecodedScalar first, std::string_view text, std::size_t start) {
  const std::size_t second = start + first.length;
  auto previous = static_cast<utf8proc_int32_t>(first.scalar);
  utf8proc_int32_t state = 0;
  for (std::size_t end = second; end < text.size();) {
    const auto next = UTF8::decode(text, end);
    const auto scalar = static_cast<utf8proc_int32_t>(next.scalar);
    if (utf8proc_grapheme_break_stateful(previous, scalar, &state) &&
        (end == second || !joinsConjunct(text.substr(start, end - start), next.scalar))) {
      return end;
    }
    previous = scalar;
    end += next.length;
  }
  return text.size();
}

}  // namespace

std::size_t endOfCharacter(std::string_view text, std::size_t start) {
  // There is always a boundary between two ASCII characters, except CR LF (UAX #29, GB3).
  if (UTF8::isASCII(text[start])) {
    const std::size_t end = start + 1;
    if (end == text.size()) return end;
    if (UTF8::isASCII(text[end])) return text[start] == '\r' && text[end] == '\n' ? end + 1 : end;
  }

  const auto first = UTF8::decode(text, start);
  return isOrdinary(first.scalar) ? endAfterOrdinary(text, start + first.length)
                                  : endAfter(first, text, start);
}

}  // namespace tessaloom
