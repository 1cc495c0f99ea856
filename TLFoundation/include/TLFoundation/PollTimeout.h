#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>

namespace tessaloom {

/// What poll(2) takes for a wait until `until`: rounded up, so that it never returns just before.
inline int pollTimeout(std::chrono::steady_clock::time_point until) {
  using Milliseconds = std::chrono::duration<std::int64_t, std::milli>;
  const auto rest = std::chrono::ceil<Milliseconds>(until - std::chrono::steady_clock::now());
  return static_cast<int>(
      std::clamp<std::int64_t>(rest.count(), 0, std::numeric_limits<int>::max()));
}

}  // namespace tessaloom
