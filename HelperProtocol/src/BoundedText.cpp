#include "HelperProtocol/BoundedText.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "HelperProtocol/GenerationDTOError.h"
#include "TLFoundation/Unicode.h"

namespace tessaloom {
namespace {

/// A byte-wise scan: U+0080 to U+009F are the only scalars with the lead byte C2 and a second byte
/// below A0.
bool holdsForbiddenControl(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r') return true;
    if (byte == 0x7F) return true;
    if (byte == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0) {
      return true;
    }
  }
  return false;
}

}  // namespace

BoundedText::BoundedText(std::string value, std::int64_t limit)
    : value_(std::move(value)),
      length_(static_cast<std::int64_t>(Unicode::characterCount(value_))) {
  requireLength(std::min(limit, maximumLength));
  if (holdsForbiddenControl(value_)) throw GenerationDTOError::controlCharacters();
}

void BoundedText::requireLength(std::int64_t limit) const {
  if (length_ > limit) throw GenerationDTOError::textTooLong(limit, length_);
}

}  // namespace tessaloom
