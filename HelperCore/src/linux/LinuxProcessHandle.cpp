#include "linux/LinuxProcessHandle.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "TLFoundation/DescriptorShortage.h"
#include "linux/ProcFiles.h"
#include "linux/ProcParser.h"

namespace tessaloom {

namespace {

/// By number: the C library's functions for them came later than the calls.
int openPidfd(std::int32_t pid) {
  return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

/// 0 or an errno value.
int sendByPidfd(const FileDescriptor& pidfd, std::int32_t number) {
  return ::syscall(SYS_pidfd_send_signal, pidfd.get(), number, nullptr, 0) == 0 ? 0 : errno;
}

/// Whether errno says that this system has no pidfds, or a sandbox forbids them.
bool hasNoPidfds() {
  return errno == ENOSYS || errno == EPERM || errno == ENODEV;
}

}  // namespace

LinuxProcessHandle::LinuxProcessHandle(const FileDescriptor& procDirectory, const BootClock& clock,
                                       std::int32_t pid, By by)
    : clock_(clock), pid_(pid) {
  if (by == By::pidfdWherePossible) {
    pidfd_ = FileDescriptor{openPidfd(pid)};
    ranOut_ = !pidfd_ && isDescriptorShortage(errno);
    if (!pidfd_ && !hasNoPidfds()) return;
  }
  const ProcFiles proc{procDirectory};
  stat_ = proc.open(ProcPath{pid, "stat"});
  ranOut_ = proc.ranOutOfDescriptors();
}

std::optional<ProcessStartTime> LinuxProcessHandle::startTime() {
  if (!stat_) return std::nullopt;
  std::array<char, 1024> buffer;
  auto stat = parseProcessStat(readStart(stat_, buffer));
  if (!stat) return std::nullopt;
  // What was opened by pid is this process's only if it still has the pid now. A signal that may
  // not be sent (EPERM) proves that as well.
  if (pidfd_ && sendByPidfd(pidfd_, 0) == ESRCH) return std::nullopt;
  return clock_.startTime(stat->startTicks);
}

int LinuxProcessHandle::signal(std::int32_t number) {
  if (!stat_) return ESRCH;
  if (pidfd_) return sendByPidfd(pidfd_, number);
  return ::kill(pid_, number) == 0 ? 0 : errno;
}

}  // namespace tessaloom
