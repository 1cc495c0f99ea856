#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace tessaloom {

/// A process record that would break its rule. The numeric value of a kind is the code that a
/// reply's error carries.
class HelperDTOError : public std::runtime_error {
 public:
  enum class Kind : std::int64_t { invalidPID = 201 };

  /// A process identifier is 0 or negative.
  static HelperDTOError invalidPID(std::int32_t value);

  /// The same error, whose what() begins with the key path of the member that it is about.
  HelperDTOError at(const std::string& path) const;

  Kind kind() const { return Kind::invalidPID; }
  std::int32_t value() const { return value_; }

  friend bool operator==(const HelperDTOError& a, const HelperDTOError& b) {
    return a.value_ == b.value_;
  }

 private:
  HelperDTOError(std::int32_t value, const std::string& message);

  std::int32_t value_;
};

}  // namespace tessaloom
