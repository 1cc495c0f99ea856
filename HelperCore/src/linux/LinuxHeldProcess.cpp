#include "linux/LinuxHeldProcess.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "linux/ProcFiles.h"
#include "linux/ProcText.h"

namespace tessaloom::linux_kernel {

namespace {

// By number: the C library's functions for them came later than the calls.
int openPidfd(std::int32_t pid) {
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

/// 0 or an errno value.
int sendByPidfd(const FileDescriptor& pidfd, std::int32_t number) {
  return syscall(SYS_pidfd_send_signal, pidfd.get(), number, nullptr, 0) == 0 ? 0 : errno;
}

}  // namespace

LinuxHeldProcess::LinuxHeldProcess(const FileDescriptor& procDirectory, const StartClock& clock,
                                   std::int32_t pid, Hold hold)
    : procDirectory_(procDirectory), clock_(clock), pid_(pid) {
  if (hold == Hold::pidOnly) return;
  pidfd_ = FileDescriptor{openPidfd(pid)};
  // The number of a thread that is not a process is EINVAL, from Linux 6.13 on ENOENT.
  absent_ = !pidfd_ && (errno == ESRCH || errno == EINVAL || errno == ENOENT);
}

std::optional<ProcessStartTime> LinuxHeldProcess::startTime() {
  if (absent_) return std::nullopt;
  std::array<char, 1024> buffer;
  auto text = readStartAt(procDirectory_.get(), ProcPath{pid_, "stat"}.text(), buffer);
  auto stat = parseProcessStat(text);
  if (!stat) return std::nullopt;
  // What was read by pid was this process only if it still holds the pid now. A signal that may not
  // be sent (EPERM) proves that as well.
  if (pidfd_ && sendByPidfd(pidfd_, 0) == ESRCH) return std::nullopt;
  return clock_.startTime(stat->startTicks);
}

int LinuxHeldProcess::signal(std::int32_t number) {
  if (absent_) return ESRCH;
  if (pidfd_) return sendByPidfd(pidfd_, number);
  return ::kill(pid_, number) == 0 ? 0 : errno;
}

}  // namespace tessaloom::linux_kernel
