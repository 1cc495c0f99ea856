#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "TLFoundation/HashFields.h"

namespace tessaloom {

/// A text of a bounded number of user-perceived characters without forbidden control characters:
/// below U+0020 only TAB, LF and CR are allowed, U+007F to U+009F never. On the wire a bare string.
class BoundedText {
 public:
  static constexpr std::int64_t maximumLength = 64'000;  ///< In user-perceived characters.

  /// Throws GenerationDTOError: textTooLong with the smaller of `limit` and `maximumLength` and the
  /// actual count, otherwise controlCharacters. `value` must be UTF-8 (a text that is not can be
  /// held but not written).
  explicit BoundedText(std::string value, std::int64_t limit = maximumLength);

  const std::string& value() const { return value_; }
  /// User-perceived characters.
  std::int64_t length() const { return length_; }

  /// Throws GenerationDTOError::textTooLong if the text is longer.
  void requireLength(std::int64_t limit) const;

  friend bool operator==(const BoundedText&, const BoundedText&) = default;
  std::size_t hash() const noexcept { return hashFields(value_); }

 private:
  std::string value_;
  std::int64_t length_;
};

}  // namespace tessaloom
