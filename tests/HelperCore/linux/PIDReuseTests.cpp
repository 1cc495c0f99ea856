#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "HelperCore/ProcessIdentity.h"
#include "HelperCore/ProcessKill.h"
#include "HelperCore/ProcessListing.h"
#include "TLFoundation/FileDescriptor.h"
#include "linux/LinuxKernel.h"

namespace tessaloom {
namespace {

/// What the process that forces pids to come round found out.
struct Findings {
  int reused = 0;
  int sameIdentity = 0;  ///< A listed process and its successor with one pid and start time.
  int notRefused = 0;
  int strayedFromHold = 0;  ///< A signal to a held process that ended was not told as failed.
  int wronglySignalled = 0;
};

/// Sleeps with every signal blocked, so that those sent to it can be seen waiting.
pid_t forkSleeper() {
  pid_t pid = fork();
  if (pid != 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (;;) pause();
}

void end(pid_t pid) {
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

/// The next process gets `pid`, if it is free. Takes CAP_CHECKPOINT_RESTORE or CAP_SYS_ADMIN over
/// the pid namespace.
bool setNextPID(pid_t pid) {
  std::ofstream file{"/proc/sys/kernel/ns_last_pid"};
  file << pid - 1 << std::flush;
  return file.good();
}

bool hasWaitingSignal(pid_t pid) {
  std::ifstream file{"/proc/" + std::to_string(pid) + "/status"};
  const std::string status{std::istreambuf_iterator<char>{file}, {}};
  return !status.contains("\nShdPnd:\t0000000000000000\n");
}

void tryOnce(LinuxKernel& kernel, ProvenanceCache& cache, Findings& findings) {
  pid_t listed = forkSleeper();
  std::vector<ProcessIdentity> identities;
  for (const RawProcess& row : listRawProcesses(kernel)) {
    identities.push_back({row.pid, row.startSec, row.startUSec});
  }
  cache.record(identities, kernel.wallClockTime());
  auto held = kernel.openProcess(listed);
  auto heldStart = held->startTime();

  end(listed);
  setNextPID(listed);
  pid_t successor = forkSleeper();
  if (successor == listed) {
    ++findings.reused;
    if (kernel.openProcess(successor)->startTime() == heldStart) ++findings.sameIdentity;
    KillRequest request{.pid = ProcessID{listed}, .signal = Signal::terminate};
    if (killProcess(request, kernel, cache).succeeded) ++findings.notRefused;
    if (held->signal(SIGTERM) != ESRCH) ++findings.strayedFromHold;
    if (hasWaitingSignal(successor)) ++findings.wronglySignalled;
  }
  end(successor);
}

/// The first process of a pid namespace of its own, where nobody else takes pids.
[[noreturn]] void runTries(int tries, int findingsPipe) {
  bool prepared = mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                  mount("proc", "/proc", "proc", 0, nullptr) == 0 && setNextPID(1000);
  if (!prepared) _exit(1);
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_SETMASK, &all, nullptr);
  LinuxKernel kernel;
  ProvenanceCache cache{std::chrono::seconds{60}};
  Findings findings;
  for (int i = 0; i < tries; ++i) tryOnce(kernel, cache, findings);
  bool written = write(findingsPipe, &findings, sizeof findings) == sizeof findings;
  _exit(written ? 0 : 1);
}

/// Nothing when the namespace cannot be made or entered.
std::optional<Findings> findOut(int tries) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
  FileDescriptor readEnd{ends[0]};
  pid_t outer = fork();
  if (outer == 0) {
    constexpr int own = CLONE_NEWPID | CLONE_NEWNS;
    if (unshare(own) != 0 && unshare(CLONE_NEWUSER | own) != 0) _exit(1);
    pid_t first = fork();
    if (first == 0) runTries(tries, ends[1]);
    if (first > 0) waitpid(first, nullptr, 0);
    _exit(0);
  }
  FileDescriptor{ends[1]}.reset();
  Findings findings;
  bool received = read(readEnd.get(), &findings, sizeof findings) == sizeof findings;
  waitpid(outer, nullptr, 0);
  if (!received) return std::nullopt;
  return findings;
}

TEST(LinuxPIDReuse, NeverLetsASignalReachTheSuccessor) {
  // A thousand tries take a minute of ticks.
  const char* wanted = getenv("TESSALOOM_PID_REUSE_TRIES");
  const int tries = wanted != nullptr ? atoi(wanted) : 100;
  auto findings = findOut(tries);
  if (!findings) GTEST_SKIP() << "setting the next pid takes a pid namespace and rights over it";
  EXPECT_GT(findings->reused, tries / 2);
  EXPECT_EQ(findings->sameIdentity, 0);
  EXPECT_EQ(findings->notRefused, 0);
  EXPECT_EQ(findings->strayedFromHold, 0);
  EXPECT_EQ(findings->wronglySignalled, 0);
}

}  // namespace
}  // namespace tessaloom
