#pragma once

#include <cstdint>
#include <optional>

#include "HelperCore/Kernel.h"
#include "TLFoundation/FileDescriptor.h"
#include "linux/StartClock.h"

namespace tessaloom::linux_kernel {

/// A process held by a pidfd (pidfd_open(2), Linux 5.3), which goes on naming it after it ended,
/// whoever gets its pid.
///
/// Where there are no pidfds, the signal goes to the pid right after the check: the gap of some
/// microseconds, in which the process would have to end and its pid to come round again, is what
/// such a kernel leaves.
class LinuxHeldProcess final : public HeldProcess {
 public:
  enum class Hold : std::uint8_t { pidfdWherePossible, pidOnly };

  /// Both references outlive this object.
  LinuxHeldProcess(const FileDescriptor& procDirectory, const StartClock& clock, std::int32_t pid,
                   Hold hold = Hold::pidfdWherePossible);

  std::optional<ProcessStartTime> startTime() override;
  int signal(std::int32_t number) override;

 private:
  const FileDescriptor& procDirectory_;
  const StartClock& clock_;
  const std::int32_t pid_;
  FileDescriptor pidfd_;
  bool absent_ = false;  ///< There was no such process to begin with.
};

}  // namespace tessaloom::linux_kernel
