#include "TLFoundation/DisplayWidth.h"

#include <utf8proc.h>

#include "Graphemes.h"
#include "UTF8.h"

namespace tessaloom {

std::size_t displayWidth(std::string_view text) {
  std::size_t width = 0;
  for (std::size_t position = 0; position < text.size();) {
    const UTF8::DecodedScalar decoded = UTF8::decode(text, position);
    const int columns = utf8proc_charwidth(static_cast<utf8proc_int32_t>(decoded.scalar));
    if (columns > 0) width += static_cast<std::size_t>(columns);
    position += decoded.length;
  }
  return width;
}

std::string_view prefixOfWidth(std::string_view text, std::size_t columns) {
  std::size_t end = 0;
  while (end < text.size()) {
    const std::size_t next = endOfCharacter(text, end);
    const std::size_t width = displayWidth(text.substr(end, next - end));
    if (width > columns) break;
    columns -= width;
    end = next;
  }
  return text.substr(0, end);
}

}  // namespace tessaloom
