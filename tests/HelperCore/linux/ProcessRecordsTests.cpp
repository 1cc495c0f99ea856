#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <new>
#include <set>
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

TEST(LinuxProcesses, TellsWhatAProcessIs) {
  LinuxKernel kernel;
  const double before = kernel.processClockTime().time_since_epoch().count();
  ObedientChild child;
  const Instant after = kernel.processClockTime();
  auto read = [&] { return processesOf(kernel, {child.pid()}).at(0); };
  const RawProcess first = read();
  EXPECT_EQ(first.parentPID, getpid());
  EXPECT_EQ(first.command, "obedient-proces") << "fifteen bytes of the file's name";
  EXPECT_EQ(first.tty, std::nullopt);
  EXPECT_GT(first.residentBytes, 0U);
  // To the tick; and the boot is worked out to the tick below.
  const Instant started = makeProcessSample(first, after).startedAt();
  EXPECT_GE(started.time_since_epoch().count(), before - 0.03);
  EXPECT_LE(started, after);
  const ProcessStartTime start{first.startSec, first.startUSec};
  EXPECT_EQ(kernel.openProcess(child.pid())->startTime(), start);
  child.ask(Command::setName, ") S 1\n\xff");
  EXPECT_EQ(read().command, ") S 1\n\uFFFD");
  EXPECT_EQ((ProcessStartTime{read().startSec, read().startUSec}), start);
}

TEST(LinuxProcesses, ListsTheUsersProcessesByPidWhateverStateTheyAreIn) {
  LinuxKernel kernel;
  ObedientChild parent, hidden, headless;
  const std::int32_t zombie = parent.ask(Command::forkZombie);
  hidden.ask(Command::hideFromOthers);
  headless.give(makeSocket(SocketUse::tcpListening));
  headless.ask(Command::leaveMainThread);
  for (int listing = 0; listing < 2; ++listing) {
    auto rows = listRawProcesses(kernel);
    EXPECT_TRUE(std::ranges::is_sorted(rows, std::ranges::less_equal{}, &RawProcess::pid));
    for (std::int32_t pid : {parent.pid(), hidden.pid(), headless.pid(), zombie}) {
      EXPECT_EQ(std::ranges::count(rows, pid, &RawProcess::pid), 1) << pid;
    }
    EXPECT_EQ(processesOf(kernel, {zombie}).at(0).residentBytes, 0U);
    EXPECT_GT(processesOf(kernel, {headless.pid()}).at(0).residentBytes, 0U);
  }
  EXPECT_EQ(portsOf(kernel, {headless.pid()}).size(), 1U);
  if (getuid() == 0) parent.ask(Command::becomeUser, 65534);
  EXPECT_TRUE(processesOf(kernel, {getuid() == 0 ? parent.pid() : 1}).empty());
}

TEST(LinuxProcesses, NoticesWhenAParentEndsWhileItsChildRests) {
  LinuxKernel kernel{settled};
  ObedientChild parent;
  const pid_t heir = parent.ask(Command::forkHeir);
  listUntilRemembered(
      [&] { EXPECT_EQ(processesOf(kernel, {heir}).at(0).parentPID, parent.pid()); });
  kill(parent.pid(), SIGKILL);
  siginfo_t ended{};
  waitid(P_PID, static_cast<id_t>(parent.pid()), &ended, WEXITED | WNOWAIT);
  EXPECT_NE(processesOf(kernel, {heir}).at(0).parentPID, parent.pid()) << "it is a zombie now";
  EXPECT_EQ(processesOf(kernel, {parent.pid()}).size(), 1U);
  kill(heir, SIGKILL);
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
  listUntilRemembered([&] {
    EXPECT_EQ("/dev/" + processesOf(kernel, {child.pid()}).at(0).tty.value_or("none"), path);
  });
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

/// Another limit of open descriptors, for the life of this object.
struct DescriptorLimit {
  explicit DescriptorLimit(rlim_t limit) {
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit changed{limit, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &changed);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before); }
  rlimit before{};
};

TEST(DescriptorBudget, LeavesAQuarterAndAtLeast256) {
  for (const auto& [limit, kept] :
       {std::pair{200U, 0U}, {400U, 144U}, {1024U, 768U}, {4000U, 3000U}}) {
    const DescriptorLimit limited{limit};
    DescriptorBudget budget{kept / 2};
    std::size_t count = kept / 2;
    while (budget.takeOne()) ++count;
    EXPECT_EQ(count, kept);
  }
}

std::ptrdiff_t countDescriptors() {
  using Iterator = std::filesystem::directory_iterator;
  return std::ranges::distance(Iterator{"/proc/self/fd"}, Iterator{});
}

TEST(LinuxKernel, SharesDescriptorsAmongThreadsAndGivesThemBackWhenTheyRunShort) {
  const DescriptorLimit limited{512};
  ObedientChild child;
  child.give(makeSocket(SocketUse::tcpListening));
  LinuxKernel kernel;
  const auto before = countDescriptors();
  const auto processes = processesOf(kernel, {child.pid()});
  const auto ports = portsOf(kernel, {child.pid()});
  EXPECT_EQ(processes.size() + ports.size(), 2U);
  EXPECT_GT(countDescriptors(), before);
  const auto expectTheSame = [&] {
    EXPECT_EQ(portsOf(kernel, {child.pid()}), ports);
    EXPECT_EQ(processesOf(kernel, {child.pid()}), processes);
  };
  std::vector<std::jthread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      expectTheSame();
      kernel.releaseKeptDescriptors();
      expectTheSame();
    });
  }
  threads.clear();
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

/// The processes that one of some listings remembers, until `wanted` is among them. On a busy
/// machine it takes a while until a process that has answered is off its processor.
std::set<pid_t> everRemembered(pid_t wanted, std::chrono::nanoseconds idleAge, int listings) {
  const FileDescriptor procDirectory{open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  const StartClock clock;
  std::vector<KnownProcess> known;
  std::set<pid_t> remembered;
  for (int listing = 0; listing < listings && !remembered.contains(wanted); ++listing) {
    ProcessPass pass(procDirectory, clock, getuid(), idleAge, std::move(known), true);
    readProcessRecords(pass);
    for (const auto& slot : pass.slots()) {
      if (slot.isRemembered) remembered.insert(slot.known.pid);
    }
    known = pass.takeKnown();
    std::this_thread::sleep_for(settled);
  }
  return remembered;
}

TEST(ProcessPass, RemembersProcessesThatHaveNotRun) {
  ObedientChild child, threaded;
  threaded.ask(Command::startThread);
  const auto remembered = everRemembered(child.pid(), settled, 20);
  if (!remembered.contains(child.pid())) GTEST_SKIP() << "this kernel does not count";
  EXPECT_FALSE(remembered.contains(getpid()));
  EXPECT_FALSE(remembered.contains(threaded.pid())) << "the other thread may have run";
  EXPECT_FALSE(everRemembered(child.pid(), std::chrono::hours{1}, 4).contains(child.pid()))
      << "the probe is too young";
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
  const auto fail = [&](std::size_t index) {
    work(index);
    // With one processor there is no other thread.
    const bool isOther = std::this_thread::get_id() != main;
    if (isOther || index + 1 == done.size()) throw std::bad_alloc();
  };
  EXPECT_THROW(forEachPart(done.size(), fail), std::bad_alloc);
}

}  // namespace
}  // namespace tessaloom
