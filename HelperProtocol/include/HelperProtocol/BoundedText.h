#pragma once

#include <cstdint>
#include <string>

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

  friend bool operator==(const BoundedText&, const BoundedText&) = default;

 private:
  std::string value_;
};

}  // namespace tessaloom
