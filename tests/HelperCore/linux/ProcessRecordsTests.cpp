#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <new>
#include <thread>

#include <gtest/gtest.h>

#include "HelperCore/linux/LiveListings.h"
#include "linux/LinuxKernel.h"
#include "linux/LinuxProcessHandle.h"
#include "linux/Parallel.h"
#include "linux/ProcessPass.h"
#include "linux/ProcessRecords.h"
#include "support/ObedientChild.h"

namespace tessaloom {
namespace {

using namespace std::string_literals;
using Command = ObedientChild::Command;

TEST(LinuxProcesses, TellsWhatAProcessIsWhateverItsName) {
  LinuxKernel kernel;
  const double before = kernel.processClockTime().time_since_epoch().count();
  ObedientChild child;
  const double after = kernel.processClockTime().time_since_epoch().count();
  auto read = [&] { return processesOf(kernel, {child.pid()}).at(0); };
  const RawProcess first = read();
  EXPECT_EQ(first.parentPID, getpid());
  EXPECT_EQ(first.command, "obedient-proces") << "fifteen bytes of the file's name";
  EXPECT_EQ(first.tty, std::nullopt);
  EXPECT_GT(first.residentBytes, 0U);
  // To the tick; and the boot is worked out to the tick below.
  const Instant started = makeProcessSample(first, kernel.processClockTime()).startedAt();
  EXPECT_GE(started.time_since_epoch().count(), before - 0.03);
  EXPECT_LE(started.time_since_epoch().count(), after);
  const ProcessStartTime start{first.startSec, first.startUSec};
  EXPECT_EQ(kernel.openProcess(child.pid())->startTime(), start);

  for (const std::string& name : {"two words"s, ") S 1 1 (1"s, "new\nline"s, "back\\slash"s}) {
    child.ask(Command::setName, name);
    EXPECT_EQ(read().command, name);
  }
  child.ask(Command::setName, "bad\xff\xc3");
  EXPECT_EQ(read().command, "bad\uFFFD\uFFFD");
  EXPECT_EQ((ProcessStartTime{read().startSec, read().startUSec}), start);
}

TEST(LinuxProcesses, ListsTheUsersProcessesByPidWhateverStateTheyAreIn) {
  LinuxKernel kernel;
  ObedientChild parent;
  ObedientChild hidden;
  const std::int32_t zombie = parent.ask(Command::forkZombie);
  hidden.ask(Command::hideFromOthers);
  auto isZombie = [zombie] {
    std::ifstream file{"/proc/" + std::to_string(zombie) + "/stat"};
    return std::string{std::istreambuf_iterator<char>{file}, {}}.contains(") Z ");
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
  if (getuid() != 0) {
    EXPECT_TRUE(processesOf(kernel, {1}).empty());
    return;
  }
  parent.ask(Command::becomeUser, 65534);
  EXPECT_TRUE(processesOf(kernel, {parent.pid()}).empty());
}

TEST(LinuxProcesses, NoticesWhenAParentEndsWhileItsChildRests) {
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

TEST(LinuxProcesses, ListsAProcessWhoseMainThreadHasExited) {
  LinuxKernel kernel;
  ObedientChild child;
  const FileDescriptor socket = makeSocket(SocketUse::tcpListening);
  child.give(socket);
  child.ask(Command::leaveMainThread);
  EXPECT_GT(processesOf(kernel, {child.pid()}).at(0).residentBytes, 0U);
  EXPECT_EQ(portsOf(kernel, {child.pid()}).at(0).port(), portOf(socket));
}

TEST(LinuxProcesses, NamesTheTerminalForAsLongAsAProcessHasIt) {
  FileDescriptor master{posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)};
  if (!master || grantpt(master.get()) != 0 || unlockpt(master.get()) != 0) {
    GTEST_SKIP() << "there are no pseudo-terminals here";
  }
  char path[64];
  ASSERT_EQ(ptsname_r(master.get(), path, sizeof path), 0);
  LinuxKernel kernel{settled};
  ObedientChild child;
  ASSERT_EQ(child.ask(Command::takeTerminal, path), 0);
  for (int listing = 0; listing < 4; ++listing) {
    EXPECT_EQ(processesOf(kernel, {child.pid()}).at(0).tty,
              std::string{path}.substr("/dev/"s.size()));
    std::this_thread::sleep_for(settled * 3 / 2);
  }
  master.reset();
  EXPECT_EQ(processesOf(kernel, {child.pid()}).at(0).tty, std::nullopt) << "it was hung up";
}

TEST(LinuxProcesses, SignalsTheProcessThatItHoldsAndForgetsItWhenItEnded) {
  using By = LinuxProcessHandle::By;
  LinuxKernel kernel;
  const FileDescriptor procDirectory{open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  const StartClock clock;
  for (By by : {By::pidfdWherePossible, By::pidOnly}) {
    ObedientChild child;
    LinuxProcessHandle held{procDirectory, clock, child.pid(), by};
    EXPECT_TRUE(held.startTime());
    EXPECT_EQ(processesOf(kernel, {child.pid()}).size(), 1U);
    EXPECT_EQ(held.signal(SIGTERM), 0);
    int status = 0;
    EXPECT_EQ(waitpid(child.pid(), &status, 0), child.pid());
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_EQ(held.startTime(), std::nullopt);
    EXPECT_EQ(held.signal(SIGTERM), ESRCH);
    EXPECT_EQ(kernel.openProcess(child.pid())->startTime(), std::nullopt);
    EXPECT_TRUE(processesOf(kernel, {child.pid()}).empty());
  }
}

/// A process with a listener, and what the first listings say of both.
class LinuxKernelTest : public testing::Test {
 protected:
  LinuxKernelTest() {
    child.give(makeSocket(SocketUse::tcpListening));
    getrlimit(RLIMIT_NOFILE, &limit);
  }
  ~LinuxKernelTest() override { setrlimit(RLIMIT_NOFILE, &limit); }

  void listFirst() {
    processes = processesOf(kernel, {child.pid()});
    ports = portsOf(kernel, {child.pid()});
    ASSERT_EQ(processes.size(), 1U);
    ASSERT_EQ(ports.size(), 1U);
  }
  void expectTheSame() {
    EXPECT_EQ(portsOf(kernel, {child.pid()}), ports);
    EXPECT_EQ(processesOf(kernel, {child.pid()}), processes);
  }
  static std::ptrdiff_t countDescriptors() {
    return std::ranges::distance(std::filesystem::directory_iterator{"/proc/self/fd"},
                                 std::filesystem::directory_iterator{});
  }

  rlimit limit{};
  ObedientChild child;
  LinuxKernel kernel;
  std::vector<RawProcess> processes;
  std::vector<PortSample> ports;
};

TEST_F(LinuxKernelTest, GivesBackDescriptorsWhenTheyRunShort) {
  const rlimit few{512, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  const auto before = countDescriptors();
  listFirst();
  EXPECT_GT(countDescriptors(), before);
  kernel.releaseKeptDescriptors();
  EXPECT_EQ(countDescriptors(), before);
  // A signal gets the descriptors that it needs, and so does a listing.
  for (const bool listing : {false, true}) {
    expectTheSame();
    std::vector<FileDescriptor> taken;
    do {
      taken.emplace_back(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
    } while (taken.back());
    if (listing) {
      expectTheSame();
    } else {
      EXPECT_TRUE(kernel.openProcess(child.pid())->startTime());
    }
  }
}

TEST_F(LinuxKernelTest, ServesSeveralThreadsAtOnce) {
  listFirst();
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      expectTheSame();
      kernel.releaseKeptDescriptors();
      expectTheSame();
    });
  }
  for (std::thread& thread : threads) thread.join();
}

/// Whether one of some listings remembers the process. On a busy machine it takes a while until a
/// process that has answered is off its processor.
bool isEverRemembered(pid_t pid, std::chrono::nanoseconds idleAge, int listings = 4) {
  const FileDescriptor procDirectory{open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  const StartClock clock;
  std::vector<KnownProcess> known;
  for (int listing = 0; listing < listings; ++listing) {
    ProcessPass pass(procDirectory, clock, getuid(), idleAge, std::move(known), true);
    readProcessRecords(pass);
    if (pass.find(pid)->isRemembered) return true;
    known = pass.takeKnown();
    std::this_thread::sleep_for(settled);
  }
  return false;
}

TEST(ProcessPass, RemembersProcessesThatHaveNotRun) {
  ObedientChild child;
  if (!isEverRemembered(child.pid(), settled, 20)) GTEST_SKIP() << "this kernel does not count";
  EXPECT_FALSE(isEverRemembered(child.pid(), std::chrono::hours{1})) << "the probe is too young";
  EXPECT_FALSE(isEverRemembered(getpid(), settled));
  child.ask(Command::startThread);
  EXPECT_FALSE(isEverRemembered(child.pid(), settled)) << "the other thread may have run";
}

TEST(Parallel, DoesEachPieceOnceAndThrowsWhatAThreadThrows) {
  const auto main = std::this_thread::get_id();
  std::vector<int> done(1'000);
  const auto work = [&](std::size_t index) {
    std::this_thread::sleep_for(std::chrono::microseconds{20});
    ++done[index];
  };
  forEachPart(done.size(), work);
  EXPECT_EQ(done, std::vector<int>(done.size(), 1));
  EXPECT_THROW(forEachPart(done.size(),
                           [&](std::size_t index) {
                             work(index);
                             // With one processor there is no other thread.
                             const bool isOther = std::this_thread::get_id() != main;
                             if (isOther || index + 1 == done.size()) throw std::bad_alloc();
                           }),
               std::bad_alloc);
}

}  // namespace
}  // namespace tessaloom
