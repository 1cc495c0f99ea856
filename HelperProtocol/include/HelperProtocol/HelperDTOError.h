#pragma once

#include <cstdint>
#include <stdexcept>

namespace tessaloom {

/// A process record that would break its rule. The numeric value of a case is the code that a
/// reply's error carries.
class HelperDTOError : public std::runtime_error {
 public:
  enum class Case : std::int64_t { invalidPID = 201 };

  /// A process identifier is 0 or negative.
  static HelperDTOError invalidPID(std::int32_t value);

  Case errorCase() const { return Case::invalidPID; }
  std::int32_t value() const { return value_; }

  friend bool operator==(const HelperDTOError& a, const HelperDTOError& b) {
    return a.value_ == b.value_;
  }

 private:
  explicit HelperDTOError(std::int32_t value);

  std::int32_t value_;
};

}  // namespace tessaloom
