#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HelperCore/Kernel.h"
#include "HelperProtocol/ProcessMessages.h"
#include "TLFoundation/HashFields.h"

namespace tessaloom {

/// One process of the helper's user, before it becomes a message.
struct RawProcess {
  std::int32_t pid;
  std::int32_t parentPID;
  std::int64_t startSec;           ///< Whole seconds since the Unix epoch.
  std::int32_t startUSec;          ///< The microseconds beyond.
  std::optional<std::string> tty;  ///< Name of the controlling terminal, without a directory.
  std::uint64_t residentBytes;
  std::string command;  ///< The kernel's short name, repaired to valid UTF-8 but not cleaned.

  friend bool operator==(const RawProcess&, const RawProcess&) = default;
  std::size_t hash() const noexcept {
    return hashFields(pid, parentPID, startSec, startUSec, tty, residentBytes, command);
  }
};

/// The processes of the user that the helper runs as, in the kernel's order, zombies included;
/// pid 0 never. Empty when the table cannot be read.
std::vector<RawProcess> listRawProcesses(Kernel& kernel);

/// The message for one process at the instant `now`. A start after `now` has an age of 0.
ProcessSample makeProcessSample(const RawProcess& raw, Instant now);

}  // namespace tessaloom
