#pragma once

#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>

#include "TLFoundation/HashFields.h"

namespace tessaloom {

/// How long an engine may run. On the wire a bare integer of seconds.
class GenerationTimeout {
 public:
  static constexpr std::int64_t minimum = 5;    ///< Seconds.
  static constexpr std::int64_t maximum = 300;  ///< Seconds.
  static constexpr std::int64_t defaultSeconds = 180;

  GenerationTimeout() : seconds_(defaultSeconds) {}

  /// Throws GenerationDTOError::timeoutOutOfRange for anything outside `minimum` to `maximum`.
  explicit GenerationTimeout(std::int64_t seconds);

  std::int64_t seconds() const { return seconds_; }
  std::chrono::seconds duration() const { return std::chrono::seconds(seconds_); }

  friend auto operator<=>(const GenerationTimeout&, const GenerationTimeout&) = default;
  std::size_t hash() const noexcept { return hashFields(seconds_); }

 private:
  std::int64_t seconds_;
};

}  // namespace tessaloom
