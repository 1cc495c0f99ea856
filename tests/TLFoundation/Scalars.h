#pragma once

#include <string>

namespace tessaloom {

/// The UTF-8 form of a scalar, written from the definition and not by the code under test.
inline std::string encoded(char32_t scalar) {
  if (scalar < 0x80) return {static_cast<char>(scalar)};
  const unsigned continuations = scalar < 0x800 ? 1 : scalar < 0x10000 ? 2 : 3;
  std::string text;
  text += static_cast<char>((0xFF00U >> (continuations + 1)) | scalar >> 6 * continuations);
  for (unsigned i = continuations; i-- > 0;) {
    text += static_cast<char>(0x80 | (scalar >> 6 * i & 0x3F));
  }
  return text;
}

template <class Visit>
void forEveryScalar(Visit visit) {
  for (char32_t scalar = 0; scalar <= 0x10FFFF; ++scalar) {
    if (scalar < 0xD800 || scalar > 0xDFFF) visit(scalar);
  }
}

}  // namespace tessaloom
