#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "HelperCore/WallClock.h"
#include "HelperCore/linux/LiveListings.h"
#include "linux/LinuxHeldProcess.h"
#include "linux/LinuxKernel.h"
#include "linux/ProcFiles.h"
#include "support/ObedientChild.h"

namespace tessaloom::linux_kernel {
namespace {

using namespace std::string_literals;
using Command = ObedientChild::Command;

TEST(LinuxProcessTable, TellsWhatAProcessIs) {
  LinuxKernel kernel;
  double before = currentTime().time_since_epoch().count();
  ObedientChild child;
  double after = currentTime().time_since_epoch().count();
  auto rows = processesOf(kernel, {child.pid()});
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_EQ(rows[0].parentPID, getpid());
  EXPECT_EQ(rows[0].command, "obedient-proces") << "fifteen bytes of the file's name";
  EXPECT_EQ(rows[0].tty, std::nullopt);
  EXPECT_GT(rows[0].residentBytes, 0U);
  // To the tick; and the boot is worked out to the tick below.
  double started = makeProcessSample(rows[0], currentTime()).startedAt().time_since_epoch().count();
  EXPECT_GE(started, before - 0.03);
  EXPECT_LE(started, after);

  auto again = processesOf(kernel, {child.pid()});
  ASSERT_EQ(again.size(), 1U);
  EXPECT_EQ(again[0].startSec, rows[0].startSec);
  EXPECT_EQ(again[0].startUSec, rows[0].startUSec);
  EXPECT_EQ(kernel.holdProcess(child.pid())->startTime(),
            (ProcessStartTime{rows[0].startSec, rows[0].startUSec}));
}

TEST(LinuxProcessTable, ReadsAnyName) {
  LinuxKernel kernel;
  ObedientChild child;
  for (const std::string& name : {"two words"s, ") S 1 1 (1"s, "new\nline"s, "back\\slash"s}) {
    child.ask(Command::setName, name);
    EXPECT_EQ(processesOf(kernel, {child.pid()}).at(0).command, name);
  }
  child.ask(Command::setName, "bad\xff\xc3");
  EXPECT_EQ(processesOf(kernel, {child.pid()}).at(0).command, "bad\uFFFD\uFFFD");
}

TEST(LinuxProcessTable, ListsInOrderOfPidsWhateverStateTheyAreIn) {
  LinuxKernel kernel;
  ObedientChild parent;
  ObedientChild hidden;
  std::int32_t zombie = parent.ask(Command::forkZombie);
  hidden.ask(Command::hideFromOthers);
  auto isZombie = [zombie] {
    std::ifstream file{"/proc/" + std::to_string(zombie) + "/stat"};
    return std::string{std::istreambuf_iterator<char>{file}, {}}.find(") Z ") != std::string::npos;
  };
  while (!isZombie()) std::this_thread::yield();

  for (int listing = 0; listing < 2; ++listing) {
    auto rows = listRawProcesses(kernel);
    EXPECT_TRUE(std::ranges::is_sorted(rows, std::ranges::less_equal{}, &RawProcess::pid));
    for (std::int32_t pid : {parent.pid(), hidden.pid(), zombie}) {
      EXPECT_EQ(std::ranges::count(rows, pid, &RawProcess::pid), 1) << pid;
    }
    EXPECT_EQ(processesOf(kernel, {zombie}).at(0).residentBytes, 0U);
  }
}

TEST(LinuxProcessTable, NoticesWhenAParentEndsWhileItsChildRests) {
  constexpr std::chrono::milliseconds settled{100};
  LinuxKernel kernel{settled};
  ObedientChild parent;
  const pid_t heir = parent.ask(Command::forkHeir);
  // Long enough for the heir's row to be remembered, which takes three listings.
  for (int listing = 0; listing < 4; ++listing) {
    EXPECT_EQ(processesOf(kernel, {heir}).at(0).parentPID, parent.pid());
    std::this_thread::sleep_for(settled * 3 / 2);
  }
  kill(parent.pid(), SIGKILL);
  siginfo_t ended{};
  waitid(P_PID, static_cast<id_t>(parent.pid()), &ended, WEXITED | WNOWAIT);
  EXPECT_NE(processesOf(kernel, {heir}).at(0).parentPID, parent.pid()) << "it is a zombie now";
  EXPECT_EQ(processesOf(kernel, {parent.pid()}).size(), 1U);
  kill(heir, SIGKILL);
}

TEST(LinuxProcessTable, ListsOnlyTheUsersProcesses) {
  LinuxKernel kernel;
  if (getuid() != 0) {
    EXPECT_TRUE(processesOf(kernel, {1}).empty());
    return;
  }
  // An own process becomes another user's after it was listed.
  ObedientChild child;
  EXPECT_EQ(processesOf(kernel, {child.pid()}).size(), 1U);
  child.ask(Command::becomeUser, 65534);
  EXPECT_TRUE(processesOf(kernel, {child.pid()}).empty());
}

TEST(LinuxProcessTable, NamesTheTerminal) {
  FileDescriptor master{posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)};
  if (!master || grantpt(master.get()) != 0 || unlockpt(master.get()) != 0) {
    GTEST_SKIP() << "there are no pseudo-terminals here";
  }
  char path[64];
  ASSERT_EQ(ptsname_r(master.get(), path, sizeof path), 0);
  LinuxKernel kernel;
  ObedientChild child;
  ASSERT_EQ(child.ask(Command::takeTerminal, path), 0);
  EXPECT_EQ(processesOf(kernel, {child.pid()}).at(0).tty,
            std::string{path}.substr("/dev/"s.size()));
}

TEST(LinuxProcessTable, ForgetsProcessesThatEnded) {
  LinuxKernel kernel;
  pid_t ended = 0;
  {
    ObedientChild child;
    ended = child.pid();
    EXPECT_EQ(processesOf(kernel, {ended}).size(), 1U);
    EXPECT_EQ(processesOf(kernel, {ended}).size(), 1U);
  }
  EXPECT_TRUE(processesOf(kernel, {ended}).empty());
  EXPECT_EQ(kernel.holdProcess(ended)->startTime(), std::nullopt);
}

TEST(LinuxProcessTable, SignalsTheProcessThatItHolds) {
  using Hold = LinuxHeldProcess::Hold;
  FileDescriptor procDirectory = openAt(AT_FDCWD, "/proc", O_DIRECTORY);
  StartClock clock;
  for (Hold hold : {Hold::pidfdWherePossible, Hold::pidOnly}) {
    ObedientChild child;
    LinuxHeldProcess held{procDirectory, clock, child.pid(), hold};
    EXPECT_TRUE(held.startTime());
    EXPECT_EQ(held.signal(SIGTERM), 0);
    int status = 0;
    EXPECT_EQ(waitpid(child.pid(), &status, 0), child.pid());
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_EQ(held.startTime(), std::nullopt);
    EXPECT_EQ(held.signal(SIGTERM), ESRCH);
  }
}

TEST(LinuxProcessTable, HoldsNoThreads) {
  LinuxKernel kernel;
  pid_t thread = 0;
  std::thread{[&] { thread = gettid(); }}.join();
  std::atomic<bool> done = false;
  std::thread other{[&] {
    thread = gettid();
    done = true;
    done.notify_all();
    done.wait(true);
  }};
  done.wait(false);
  EXPECT_EQ(kernel.holdProcess(thread)->startTime(), std::nullopt);
  done = false;
  done.notify_all();
  other.join();
}

/// Leaves the process with as few descriptors as a test wants; all is undone at the end.
class FewDescriptors {
 public:
  explicit FewDescriptors(rlim_t limit) {
    getrlimit(RLIMIT_NOFILE, &before_);
    rlimit lowered{limit, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &lowered);
  }
  ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }

  void useUp() {
    for (;;) {
      FileDescriptor taken{fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)};
      if (!taken) return;
      taken_.push_back(std::move(taken));
    }
  }

 private:
  rlimit before_{};
  std::vector<FileDescriptor> taken_;
};

TEST(LinuxProcessTable, GivesWayWhenDescriptorsRunShort) {
  FileDescriptor listener = makeSocket(SocketUse::tcpListening);
  ObedientChild child;
  child.give(listener);
  LinuxKernel kernel;
  FewDescriptors few{128};
  auto processes = processesOf(kernel, {child.pid()});
  auto ports = portsOf(kernel, {child.pid()});
  ASSERT_EQ(processes.size(), 1U);
  ASSERT_EQ(ports.size(), 1U);
  // What the kernel keeps is a share; the rest was free, and is taken now.
  few.useUp();
  EXPECT_EQ(portsOf(kernel, {child.pid()}), ports);
  EXPECT_EQ(processesOf(kernel, {child.pid()}), processes);
}

TEST(LinuxProcessTable, ServesSeveralThreadsAtOnce) {
  FileDescriptor listener = makeSocket(SocketUse::tcpListening);
  ObedientChild child;
  child.give(listener);
  LinuxKernel kernel;
  auto processes = processesOf(kernel, {child.pid()});
  auto ports = portsOf(kernel, {child.pid()});
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      for (int listing = 0; listing < 5; ++listing) {
        EXPECT_EQ(processesOf(kernel, {child.pid()}), processes);
        EXPECT_EQ(portsOf(kernel, {child.pid()}), ports);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace tessaloom::linux_kernel
