#pragma once

#include <string>

namespace tessaloom {

/// The UTF-8 form of a scalar, written from the definition and not by the code under test.
inline std::string encoded(char32_t scalar) {
  std::string text;
  const auto put = [&](char32_t byte) { text += static_cast<char>(byte); };
  if (scalar < 0x80) {
    put(scalar);
    return text;
  }
  const unsigned continuations = scalar < 0x800 ? 1 : scalar < 0x10000 ? 2 : 3;
  put(((0xFF00U >> (continuations + 1)) & 0xFF) | scalar >> 6 * continuations);
  for (unsigned i = continuations; i-- > 0;) put(0x80 | (scalar >> 6 * i & 0x3F));
  return text;
}

inline bool isSurrogate(char32_t scalar) {
  return scalar >= 0xD800 && scalar <= 0xDFFF;
}

template <class Visit>
void forEveryScalar(Visit visit) {
  for (char32_t scalar = 0; scalar <= 0x10FFFF; ++scalar) {
    if (!isSurrogate(scalar)) visit(scalar);
  }
}

}  // namespace tessaloom
