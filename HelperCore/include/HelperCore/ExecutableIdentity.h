#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "TLFoundation/Instant.h"

namespace tessaloom {

/// Which file an executable is.
struct ExecutableIdentity {
  std::int32_t device;
  std::uint64_t inode;
  Instant modified;  ///< With the nanoseconds that a double can hold.

  /// From stat(2) of the path, symbolic links followed; nullopt if that fails.
  static std::optional<ExecutableIdentity> of(const std::filesystem::path& path);

  friend bool operator==(const ExecutableIdentity&, const ExecutableIdentity&) = default;
};

}  // namespace tessaloom
