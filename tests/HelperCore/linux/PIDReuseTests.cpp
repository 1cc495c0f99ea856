#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <optional>

#include <gtest/gtest.h>

#include "HelperCore/ProcessIdentity.h"
#include "HelperCore/ProcessKill.h"
#include "HelperCore/ProcessListing.h"
#include "linux/LinuxKernel.h"
#include "support/ObedientChild.h"

namespace tessaloom {
namespace {

/// The next process gets `pid`, if it is free. Takes CAP_CHECKPOINT_RESTORE or CAP_SYS_ADMIN over
/// the pid namespace.
bool setNextPID(pid_t pid) {
  std::ofstream file{"/proc/sys/kernel/ns_last_pid"};
  file << pid - 1 << std::flush;
  return file.good();
}

/// Whether the pid of a listed process came round.
bool tryOnce(LinuxKernel& kernel) {
  std::optional<ObedientChild> listed{std::in_place};
  const pid_t pid = listed->pid();
  std::vector<ProcessIdentity> identities;
  for (const RawProcess& row : listRawProcesses(kernel)) {
    identities.push_back({row.pid, row.startSec, row.startUSec});
  }
  ProvenanceCache cache{std::chrono::seconds{60}};
  cache.record(identities, kernel.wallClockTime());
  const auto held = kernel.openProcess(pid);
  const auto heldStart = held->startTime();
  listed.reset();
  setNextPID(pid);
  ObedientChild successor;
  if (successor.pid() != pid) return false;
  EXPECT_NE(kernel.openProcess(pid)->startTime(), heldStart);
  const KillRequest request{.pid = ProcessID{pid}, .signal = Signal::terminate};
  EXPECT_FALSE(killProcess(request, kernel, cache).succeeded);
  EXPECT_EQ(held->signal(SIGTERM), ESRCH);
  EXPECT_NO_THROW(successor.ask(ObedientChild::Command::duplicate)) << "a signal ended it";
  return true;
}

TEST(LinuxPIDReuse, NeverLetsASignalReachTheSuccessor) {
  // A thousand tries take a minute of ticks.
  const char* wanted = getenv("TESSALOOM_PID_REUSE_TRIES");
  const int tries = wanted != nullptr ? atoi(wanted) : 50;
  constexpr int failed = 1, refused = 2;
  // The first process of a pid namespace of its own, where nobody else takes pids.
  const int namespaces = CLONE_NEWPID | CLONE_NEWNS | (getuid() == 0 ? 0 : CLONE_NEWUSER);
  const long pid = syscall(SYS_clone, namespaces | SIGCHLD, nullptr, nullptr, nullptr, 0L);
  if (pid == 0) {
    const bool prepared = mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                          mount("proc", "/proc", "proc", 0, nullptr) == 0 && setNextPID(1000);
    if (!prepared) _exit(refused);
    LinuxKernel kernel;
    int reused = 0;
    for (int i = 0; i < tries; ++i) reused += tryOnce(kernel) ? 1 : 0;
    EXPECT_GT(reused, tries / 2);
    std::fflush(stdout);
    _exit(HasFailure() ? failed : 0);
  }
  int status = refused << 8;
  if (pid > 0) waitpid(static_cast<pid_t>(pid), &status, 0);
  if (WEXITSTATUS(status) == refused) {
    GTEST_SKIP() << "setting the next pid takes a pid namespace and rights over it";
  }
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace tessaloom
