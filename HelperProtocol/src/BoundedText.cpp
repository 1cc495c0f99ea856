#include "HelperProtocol/BoundedText.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "HelperProtocol/GenerationDTOError.h"
#include "TLFoundation/Unicode.h"

namespace tessaloom {
namespace {

/// Whether one of eight bytes is below 0x20, 0x7F or 0xC2: all that the scan below looks at. (It
/// may also say so of a byte that follows one of these.)
bool needsLook(std::uint64_t bytes) {
  constexpr std::uint64_t each = 0x0101010101010101U;
  constexpr std::uint64_t high = 0x80 * each;
  const auto isZero = [](std::uint64_t word) { return (word - each) & ~word & high; };
  const std::uint64_t isLow = (bytes - 0x20 * each) & ~bytes & high;
  return (isLow | isZero(bytes ^ 0x7F * each) | isZero(bytes ^ 0xC2 * each)) != 0;
}

/// U+0080 to U+009F are the scalars with the lead byte C2 and a second byte of 80 to 9F.
bool hasForbiddenControl(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    for (std::uint64_t word = 0; text.size() - i > sizeof word; i += sizeof word) {
      std::memcpy(&word, text.data() + i, sizeof word);
      if (needsLook(word)) break;
    }
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r') return true;
    if (byte == 0x7F) return true;
    if (byte == 0xC2 && i + 1 < text.size() && (text[i + 1] & 0xE0) == 0x80) return true;
  }
  return false;
}

}  // namespace

BoundedText::BoundedText(std::string value, std::int64_t limit)
    : value_(std::move(value)),
      length_(static_cast<std::int64_t>(Unicode::characterCount(value_))) {
  requireLength(std::min(limit, maximumLength));
  if (hasForbiddenControl(value_)) throw GenerationDTOError::controlCharacters();
}

void BoundedText::requireLength(std::int64_t limit) const {
  if (length_ > limit) throw GenerationDTOError::textTooLong(limit, length_);
}

}  // namespace tessaloom
