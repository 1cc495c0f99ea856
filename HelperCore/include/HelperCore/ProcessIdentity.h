#pragma once

#include <cstddef>
#include <cstdint>

#include "TLFoundation/HashFields.h"

namespace tessaloom {

/// Identifies a process: its pid may later be given to another one, but not with the same start
/// time.
struct ProcessIdentity {
  std::int32_t pid;
  std::int64_t startSec;   ///< Whole seconds since the Unix epoch.
  std::int32_t startUSec;  ///< The microseconds beyond.

  friend bool operator==(const ProcessIdentity&, const ProcessIdentity&) = default;
  std::size_t hash() const noexcept { return hashFields(pid, startSec, startUSec); }
};

}  // namespace tessaloom
