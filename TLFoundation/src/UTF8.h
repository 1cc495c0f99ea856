#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

/// Reading and writing single scalars; how every function of this module walks through text.
namespace tessaloom::UTF8 {

inline constexpr char32_t replacementCharacter = 0xFFFD;

struct DecodedScalar {
  char32_t scalar;     ///< U+FFFD for an ill-formed part.
  std::size_t length;  ///< In bytes, at least 1.
  bool wellFormed;
};

inline bool isASCII(char byte) {
  return static_cast<unsigned char>(byte) < 0x80;
}

/// Whether the byte can only be the second, third or fourth of a scalar.
inline bool isContinuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

/// The scalar at `position`, or the maximal ill-formed part there (Unicode 15, table 3-7: the
/// second byte's range is what excludes surrogates, overlong forms and values past U+10FFFF).
inline DecodedScalar decode(std::string_view text, std::size_t position) {
  const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned lead = byteAt(position);
  if (lead < 0x80) return {lead, 1, true};
  if (lead < 0xC2 || lead > 0xF4) return {replacementCharacter, 1, false};

  const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  unsigned low = lead == 0xE0 ? 0xA0U : lead == 0xF0 ? 0x90U : 0x80U;
  unsigned high = lead == 0xED ? 0x9FU : lead == 0xF4 ? 0x8FU : 0xBFU;
  char32_t scalar = lead & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if (position + i >= text.size()) return {replacementCharacter, i, false};
    const unsigned byte = byteAt(position + i);
    if (byte < low || byte > high) return {replacementCharacter, i, false};
    scalar = scalar << 6 | (byte & 0x3FU);
    low = 0x80;
    high = 0xBF;
  }
  return {scalar, length, true};
}

/// The scalar that a text which is not empty ends with, or U+FFFD for an ill-formed part there.
inline DecodedScalar decodeLast(std::string_view text) {
  std::size_t start = text.size() - 1;
  while (start > 0 && text.size() - start < 4 && isContinuation(text[start])) --start;
  const auto last = decode(text, start);
  if (start + last.length < text.size()) return {replacementCharacter, 1, false};
  return last;
}

inline void append(std::string& text, char32_t scalar) {
  const auto put = [&](char32_t byte) { text.push_back(static_cast<char>(byte)); };
  const auto putContinuation = [&](char32_t bits) { put(0x80 | (bits & 0x3F)); };
  if (scalar < 0x80) {
    put(scalar);
  } else if (scalar < 0x800) {
    put(0xC0 | scalar >> 6);
    putContinuation(scalar);
  } else if (scalar < 0x10000) {
    put(0xE0 | scalar >> 12);
    putContinuation(scalar >> 6);
    putContinuation(scalar);
  } else {
    put(0xF0 | scalar >> 18);
    putContinuation(scalar >> 12);
    putContinuation(scalar >> 6);
    putContinuation(scalar);
  }
}

/// The end of the run of ASCII bytes that starts at `position`; eight bytes at a time.
inline std::size_t endOfASCII(std::string_view text, std::size_t position) {
  constexpr std::uint64_t highBits = 0x8080808080808080U;
  while (text.size() - position >= sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + position, sizeof word);
    if ((word & highBits) != 0) break;
    position += sizeof word;
  }
  while (position < text.size() && isASCII(text[position])) ++position;
  return position;
}

}  // namespace tessaloom::UTF8
