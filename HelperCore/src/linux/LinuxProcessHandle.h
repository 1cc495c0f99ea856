#pragma once

#include <cstdint>
#include <optional>

#include "HelperCore/Kernel.h"
#include "TLFoundation/FileDescriptor.h"
#include "linux/BootClock.h"

namespace tessaloom {

/// A process by a pidfd (pidfd_open(2), Linux 5.3), which still refers to it after it has exited,
/// even if another process gets its pid.
///
/// Without pidfds the signal is sent to the pid right after the check. A wrong process would be
/// signaled only if this one exited and its pid was reused in the microseconds between the two.
class LinuxProcessHandle final : public ProcessHandle {
 public:
  enum class By : std::uint8_t { pidfdWherePossible, pidOnly };

  /// `clock` outlives this object.
  LinuxProcessHandle(const FileDescriptor& procDirectory, const BootClock& clock, std::int32_t pid,
                     By by = By::pidfdWherePossible);

  std::optional<ProcessStartTime> startTime() override;
  int signal(std::int32_t number) override;

  /// Whether a descriptor was refused, so that the process only seems not to exist.
  bool ranOutOfDescriptors() const { return ranOut_; }

 private:
  const BootClock& clock_;
  const std::int32_t pid_;
  FileDescriptor pidfd_;
  FileDescriptor stat_;  ///< Opened after `pidfd_`; none when there was no such process.
  bool ranOut_ = false;
};

}  // namespace tessaloom
