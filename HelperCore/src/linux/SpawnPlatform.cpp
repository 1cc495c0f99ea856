#include "HelperCore/SpawnPlatform.h"

#include <linux/close_range.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

// The C library's own name of clone(2). Sanitizers put a version of their own behind the other
// name, which takes the child for a process with a memory of its own.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl*,readability-identifier-naming)
extern "C" int __clone(int (*function)(void*), void* stack, int flags, void* argument, ...);

// What the child executes carries no instrumentation: it would change the sanitizer's picture of
// the parent's thread.
#if __has_cpp_attribute(clang::disable_sanitizer_instrumentation)
#define TL_UNINSTRUMENTED [[clang::disable_sanitizer_instrumentation]]
#else
#define TL_UNINSTRUMENTED
#endif

namespace tessaloom::SpawnPlatform {

namespace {

/// A set of signals as the kernel has it. The C library's functions leave out the two that it keeps
/// for itself, 32 and 33.
using SignalSet = std::uint64_t;
constexpr SignalSet noSignals = 0;
constexpr SignalSet allSignals = ~noSignals;

/// Keeps every signal away from this thread, so that no handler runs in a child that shares its
/// memory: the child starts with the same mask.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &allSignals, &before_, sizeof before_);
  }
  ~SignalsBlocked() {
    ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &before_, nullptr, sizeof before_);
  }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  SignalSet before_ = noSignals;
};

/// What parent and child share.
struct Launch {
  const Program& program;
  const ChildEnds& ends;
  pid_t parent;
  int error = 0;  ///< The child's, before it exits.
};

// From here to `runChild`: the child, in the memory of a parent whose other threads run on. It
// makes system calls and nothing else: it allocates nothing, takes no lock, and calls no function
// of the C library but `syscall`, which only sets the suspended thread's errno.

/// Every signal that has a handler or is ignored goes back to its default. Handlers would end with
/// the execution anyway, but the mask is emptied before it.
TL_UNINSTRUMENTED void resetSignals() {
  // The kernel's struct sigaction, which differs between architectures; none is longer. All zero is
  // the default. SIGKILL and SIGSTOP are refused, and are at their defaults.
  constexpr unsigned long defaultAction[8] = {};
  for (int signal = 1; signal < NSIG; ++signal) {
    ::syscall(SYS_rt_sigaction, signal, defaultAction, nullptr, sizeof(SignalSet));
  }
}

/// Gives the child a table of descriptors of its own. Only the part up to the child's ends is
/// copied, which matters to a process that keeps thousands open.
TL_UNINSTRUMENTED bool ownDescriptorTable(const ChildEnds& ends) {
  int last = ends.input;
  if (last < ends.output) last = ends.output;
  if (last < ends.error) last = ends.error;
  return ::syscall(SYS_close_range, static_cast<unsigned>(last) + 1, UINT_MAX,
                   CLOSE_RANGE_UNSHARE) == 0 ||
         ::syscall(SYS_unshare, CLONE_FILES) == 0;
}

TL_UNINSTRUMENTED bool connect(int end, int standard) {
  return ::syscall(SYS_dup3, end, standard, 0) >= 0;
}

/// Closes all but the standard descriptors. Where the system has no call for that (before
/// Linux 5.9, or in a sandbox that refuses it) or refuses it, they are closed one by one.
TL_UNINSTRUMENTED void closeOthers() {
  if (::syscall(SYS_close_range, STDERR_FILENO + 1, UINT_MAX, 0) == 0) return;
  std::uint64_t limit[2] = {};  // The kernel's struct rlimit64: soft, hard.
  ::syscall(SYS_prlimit64, 0, RLIMIT_NOFILE, nullptr, limit);
  for (std::uint64_t other = STDERR_FILENO + 1; other < limit[0]; ++other) {
    ::syscall(SYS_close, other);
  }
}

/// Refused only when somebody has lowered this process's hard limit meanwhile; then that one stays.
TL_UNINSTRUMENTED void limitDescriptors(const rlimit* limit) {
  if (limit == nullptr) return;
  const std::uint64_t given[2] = {limit->rlim_cur, limit->rlim_max};
  ::syscall(SYS_prlimit64, 0, RLIMIT_NOFILE, given, nullptr);
}

/// Has the kernel end the child when the thread that spawned it ends, which stays with a child
/// until it has reaped it: so when this whole process is killed. False when that has happened.
TL_UNINSTRUMENTED bool endWithParent(pid_t parent) {
  ::syscall(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
  return ::syscall(SYS_getppid) == parent;
}

/// Returns only when something failed, with errno set.
TL_UNINSTRUMENTED void becomeProgram(const Launch& launch) {
  const auto& [program, ends, parent, error] = launch;
  if (!endWithParent(parent)) return;
  resetSignals();
  if (::syscall(SYS_setpgid, 0, 0) != 0) return;
  if (!ownDescriptorTable(ends)) return;
  if (!connect(ends.input, STDIN_FILENO) || !connect(ends.output, STDOUT_FILENO) ||
      !connect(ends.error, STDERR_FILENO)) {
    return;
  }
  if (program.workingDirectory != nullptr && ::syscall(SYS_chdir, program.workingDirectory) != 0) {
    return;
  }
  closeOthers();
  limitDescriptors(program.descriptorLimit);
  ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &noSignals, nullptr, sizeof noSignals);
  ::syscall(SYS_execve, program.executable, program.arguments, program.environment);
}

TL_UNINSTRUMENTED int runChild(void* argument) {
  auto& launch = *static_cast<Launch*>(argument);
  becomeProgram(launch);
  launch.error = errno;
  for (;;) ::syscall(SYS_exit_group, EXIT_FAILURE);
}

}  // namespace

// The child shares this process's memory, so nothing is copied, and this thread is suspended until
// the child executes the program or exits; its other threads run on. posix_spawn works like this
// too, but can neither give a child its own limits nor reset signals 32 and 33, and copies the
// table of descriptors, which the child shares here until it takes its own.
std::expected<pid_t, int> spawn(const Program& program, const ChildEnds& ends) {
  // The child's calls take little; it needs a stack of its own because what it calls would
  // overwrite what this thread returns to.
  alignas(std::max_align_t) std::array<std::byte, 16'384> stack;
  Launch launch{program, ends, ::getpid()};
  constexpr int flags = CLONE_VM | CLONE_VFORK | CLONE_FILES | SIGCHLD;

  const SignalsBlocked blocked;
  const pid_t child = __clone(runChild, stack.data() + stack.size(), flags, &launch);
  if (child < 0) return std::unexpected(errno);
  if (launch.error == 0) return child;
  while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
  }
  return std::unexpected(launch.error);
}

FileDescriptor exitDescriptor(pid_t child) {
  // glibc 2.36 is the first with a wrapper; the call itself is there since Linux 5.3. The
  // descriptor is close-on-exec by definition.
  return FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, child, 0U)));
}

}  // namespace tessaloom::SpawnPlatform
