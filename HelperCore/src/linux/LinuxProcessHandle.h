#pragma once

#include <cstdint>
#include <optional>

#include "HelperCore/Kernel.h"
#include "TLFoundation/FileDescriptor.h"
#include "linux/StartClock.h"

namespace tessaloom {

/// A process by a pidfd (pidfd_open(2), Linux 5.3), which goes on naming it after it exited,
/// whoever gets its pid.
///
/// Where there are no pidfds, the signal goes to the pid right after the check: the gap of some
/// microseconds, in which the process would have to exit and its pid to come round again, is what
/// such a kernel has.
class LinuxProcessHandle final : public ProcessHandle {
 public:
  enum class By : std::uint8_t { pidfdWherePossible, pidOnly };

  /// `clock` outlives this object.
  LinuxProcessHandle(const FileDescriptor& procDirectory, const StartClock& clock, std::int32_t pid,
                     By by = By::pidfdWherePossible);

  std::optional<ProcessStartTime> startTime() override;
  int signal(std::int32_t number) override;

  /// A descriptor was refused, so that the process seems to have gone.
  bool ranOutOfDescriptors() const { return ranOut_; }

 private:
  const StartClock& clock_;
  const std::int32_t pid_;
  FileDescriptor pidfd_;
  FileDescriptor stat_;  ///< Opened after `pidfd_`; none when there was no such process.
  bool ranOut_ = false;
};

}  // namespace tessaloom
