#include "Graphemes.h"

#include <utf8proc.h>

#include "UTF8.h"

namespace tessaloom {

std::size_t endOfCharacter(std::string_view text, std::size_t start) {
  std::size_t end = start;
  // Two ASCII characters always part, except CR LF (UAX #29, GB3).
  if (UTF8::isASCII(text[start])) {
    end = start + 1;
    if (end == text.size()) return end;
    if (UTF8::isASCII(text[end])) return text[start] == '\r' && text[end] == '\n' ? end + 1 : end;
  }

  auto current = UTF8::decode(text, start);
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
