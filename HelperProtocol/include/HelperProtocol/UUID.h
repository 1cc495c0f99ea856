#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "TLFoundation/HashFields.h"

namespace tessaloom {

/// A 128-bit identifier (RFC 4122 text form). Read in either case, written in upper case.
class UUID {
 public:
  explicit UUID(const std::array<std::uint8_t, 16>& bytes) : bytes_(bytes) {}

  /// Exactly 36 characters: 32 hexadecimal digits in groups of 8-4-4-4-12; nullopt for anything
  /// else.
  static std::optional<UUID> parse(std::string_view text);

  /// A new random identifier (version 4), from the system's random source. Throws std::system_error
  /// when that fails.
  static UUID random();

  /// The canonical upper-case form, 36 characters.
  std::string string() const;

  friend bool operator==(const UUID&, const UUID&) = default;
  std::size_t hash() const noexcept {
    return hashFields(
        std::string_view(reinterpret_cast<const char*>(bytes_.data()), bytes_.size()));
  }

 private:
  std::array<std::uint8_t, 16> bytes_;
};

}  // namespace tessaloom
