#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "HelperCore/ListeningPorts.h"
#include "HelperCore/ProcessListing.h"
#include "TLFoundation/FileDescriptor.h"
#include "linux/LinuxKernel.h"
#include "linux/LinuxProcessHandle.h"
#include "linux/Parallel.h"
#include "linux/ProcessRecords.h"
#include "linux/ProcessScan.h"
#include "linux/SocketDescriptors.h"
#include "linux/SocketTable.h"
#include "support/ObedientChild.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

using namespace std::string_literals;
using Command = ObedientChild::Command;
using Rows = std::vector<std::string>;

/// An age from which on a probe counts, on a machine that ticks at least a hundred times a
/// second and is busy.
constexpr std::chrono::milliseconds shortIdleAge{100};

const FileDescriptor procDirectory{open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};

/// The rows of some processes, in the order of the listing. Others come and go as they like.
std::vector<RawProcess> processesOf(Kernel& kernel, const std::vector<pid_t>& pids) {
  auto rows = listRawProcesses(kernel);
  std::erase_if(rows, [&](const RawProcess& row) { return !std::ranges::count(pids, row.pid); });
  return rows;
}

/// The same of their ports, each as in "tcp/127.0.0.1/8080/4242 program".
std::vector<std::string> portsOf(Kernel& kernel, const std::vector<pid_t>& pids) {
  std::vector<std::string> rows;
  for (const PortSample& row : listListeningPorts(kernel)) {
    if (std::ranges::count(pids, row.pid())) rows.push_back(row.id() + " " + row.processName());
  }
  return rows;
}

enum class SocketUse : std::uint8_t { tcpListening, tcpUnused, udpBound, udpUnbound, udpConnected };

/// A socket on an address of the machine itself and a port of the kernel's choice. None when there
/// is no IPv6 here.
FileDescriptor makeSocket(SocketUse use, const char* numericAddress = "127.0.0.1") {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST;
  addrinfo* name = nullptr;
  getaddrinfo(numericAddress, use == SocketUse::udpConnected ? "9" : "0", &hints, &name);
  const bool tcp = use == SocketUse::tcpListening || use == SocketUse::tcpUnused;
  const int type = (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC;
  FileDescriptor made{socket(name->ai_family, type, 0)};
  int failed = 0;
  if (use == SocketUse::tcpListening || use == SocketUse::udpBound) {
    failed |= bind(made.get(), name->ai_addr, name->ai_addrlen);
  }
  if (use == SocketUse::tcpListening) failed |= listen(made.get(), 1);
  if (use == SocketUse::udpConnected) {
    failed |= connect(made.get(), name->ai_addr, name->ai_addrlen);
  }
  freeaddrinfo(name);
  return failed == 0 ? std::move(made) : FileDescriptor{};
}

std::string portOf(const FileDescriptor& descriptor) {
  sockaddr_in6 address{};
  socklen_t length = sizeof address;
  getsockname(descriptor.get(), reinterpret_cast<sockaddr*>(&address), &length);
  return std::to_string(ntohs(address.sin6_port));
}

TEST(LinuxProcesses, ReportsWhatAProcessIs) {
  LinuxKernel kernel;
  const double before = kernel.processClockTime().time_since_epoch().count();
  EXPECT_NEAR(before, kernel.wallClockTime().time_since_epoch().count(), 1);
  ObedientChild child;
  const Instant after = kernel.processClockTime();
  auto read = [&] { return processesOf(kernel, {child.pid()}).at(0); };
  const RawProcess first = read();
  EXPECT_EQ(first.parentPID, getpid());
  EXPECT_EQ(first.command, "obedient-proces") << "fifteen bytes of the file's name";
  EXPECT_GT(first.residentBytes, 0U);
  // To the tick; and the boot is worked out to the tick below.
  const Instant started = makeProcessSample(first, after).startedAt();
  EXPECT_GE(started.time_since_epoch().count(), before - 0.03);
  EXPECT_LE(started, after);
  const ProcessStartTime start{first.startSec, first.startUSec};
  EXPECT_EQ(kernel.openProcess(child.pid())->startTime(), start);
  child.ask(Command::setName, ") S 1\n\xff");
  EXPECT_EQ(read().command, ") S 1\n\uFFFD");
  for (int i = 0; i < 5; ++i) {  // A row is of a tick that is over.
    const RawProcess young = processesOf(kernel, {child.ask(Command::forkTwin)}).at(0);
    const Instant tick = makeProcessSample(young, after).startedAt();
    EXPECT_GE(kernel.processClockTime(), tick + Instant::duration{0.0099});
  }
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
  if (getuid() == 0) parent.ask(Command::becomeUser, 65534);
  const pid_t foreign = getuid() == 0 ? parent.pid() : 1;
  EXPECT_EQ(processesOf(kernel, {foreign, headless.pid()}).size(), 1U);
  EXPECT_EQ(portsOf(kernel, {foreign, headless.pid()}).size(), 1U);
}

TEST(LinuxProcesses, SignalsTheProcessThatItHoldsAndForgetsItWhenItEnded) {
  using By = LinuxProcessHandle::By;
  LinuxKernel kernel;
  const BootClock clock;
  for (By by : {By::pidfdWherePossible, By::pidOnly}) {
    ObedientChild child;
    LinuxProcessHandle held{procDirectory, clock, child.pid(), by};
    EXPECT_TRUE(held.startTime());
    EXPECT_EQ(held.signal(SIGTERM), 0);
    int status = 0;
    EXPECT_EQ(waitpid(child.pid(), &status, 0), child.pid());
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_EQ(held.startTime(), std::nullopt);
    EXPECT_EQ(held.signal(SIGTERM), ESRCH);
    LinuxProcessHandle late{procDirectory, clock, child.pid(), by};
    EXPECT_FALSE(late.startTime() || late.ranOutOfDescriptors());
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
  ObedientChild child;
  child.give(makeSocket(SocketUse::tcpListening));
  LinuxKernel kernel;
  const auto before = countDescriptors();
  const auto count = std::ssize(listRawProcesses(kernel));
  kernel.releaseKeptDescriptors();
  for (const auto most : {count / 2, count * 3 / 2}) {  // Each process has one, and then another.
    const DescriptorLimit limited{DescriptorBudget::reserve + static_cast<rlim_t>(most)};
    for (int listing = 0; listing < 3; ++listing) listRawProcesses(kernel);
    EXPECT_LE(countDescriptors(), before + most);
  }
  const DescriptorLimit limited{512};
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
      EXPECT_FALSE(kernel.openProcess(gettid())->startTime()) << "a thread is no process";
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
    EXPECT_TRUE(listing || kernel.openProcess(child.pid())->startTime());
    if (listing) expectTheSame();
  }
}

/// The processes that one of some listings remembers, until `wanted` is among them. On a busy
/// machine it takes a while until a process that has answered is off its processor.
std::set<pid_t> everRemembered(pid_t wanted, std::chrono::nanoseconds idleAge, int listings) {
  const BootClock clock;
  std::vector<KnownProcess> known;
  std::set<pid_t> remembered;
  for (int listing = 0; listing < listings && !remembered.contains(wanted); ++listing) {
    ProcessScan scan(procDirectory, clock, getuid(), idleAge, std::move(known), true);
    readProcessRecords(scan);
    for (const auto& entry : scan.entries()) {
      if (entry.isRemembered) remembered.insert(entry.known.pid);
    }
    known = scan.takeKnown();
    std::this_thread::sleep_for(shortIdleAge);
  }
  return remembered;
}

TEST(ProcessScan, ForgetsAProcessThatExitsWhileItIsRead) {
  const BootClock clock;
  std::optional<ObedientChild> child{std::in_place};
  ProcessScan scan(procDirectory, clock, getuid(), shortIdleAge, {}, true);
  KnownProcess& known = scan.find(child->pid())->known;
  const FileDescriptor stat = scan.open(known);
  EXPECT_TRUE(scan.readFacts(known, stat) && known.facts);
  child.reset();
  EXPECT_FALSE(scan.readFacts(known, stat) || known.facts);
}

TEST(ProcessScan, RemembersProcessesThatHaveNotRun) {
  int tickless = -1;  // The first processor without ticks.
  std::ifstream("/sys/devices/system/cpu/nohz_full") >> tickless;
  EXPECT_EQ(IdleProbe::longestTick() > std::chrono::seconds{1}, tickless >= 0);
  ObedientChild child, threaded;
  threaded.ask(Command::startThread);
  std::uint64_t timeRun = 0;
  std::ifstream("/proc/self/schedstat") >> timeRun;
  if (timeRun == 0) GTEST_SKIP() << "no counters here";
  const auto remembered = everRemembered(child.pid(), shortIdleAge, 100);
  EXPECT_TRUE(remembered.contains(child.pid()));
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
  parallelFor(done.size(), work);
  EXPECT_EQ(done, std::vector<int>(done.size(), 1));
  const auto fail = [&](std::size_t index) {
    work(index);
    // With one processor there is no other thread.
    if (std::this_thread::get_id() != main || index + 1 == done.size()) throw std::bad_alloc();
  };
  EXPECT_THROW(parallelFor(done.size(), fail), std::bad_alloc);
}

/// As `portsOf` shows it.
std::string row(const std::string& transport, const std::string& address, const std::string& port,
                const ObedientChild& child) {
  return transport + "/" + address + "/" + port + "/" + std::to_string(child.pid()) +
         " obedient-proces";
}

TEST(LinuxSockets, ListsTheSocketsThatWait) {
  LinuxKernel kernel;
  ObedientChild child;
  Rows expected;
  for (const char* address : {"127.0.0.1", "::1", "::ffff:127.0.0.1"}) {
    for (const auto use : {SocketUse::tcpListening, SocketUse::tcpUnused, SocketUse::udpBound,
                           SocketUse::udpUnbound, SocketUse::udpConnected}) {
      const FileDescriptor socket = makeSocket(use, address);
      if (!socket) continue;  // A machine without IPv6.
      child.give(socket);
      if (use == SocketUse::tcpUnused || use == SocketUse::udpUnbound) continue;
      const char* transport = use == SocketUse::tcpListening ? "tcp" : "udp";
      expected.push_back(row(transport, address, portOf(socket), child));
    }
  }
  EXPECT_EQ(portsOf(kernel, {child.pid()}), expected);

  const FileDescriptor input{dup(STDIN_FILENO)};
  dup2(makeSocket(SocketUse::tcpListening).get(), STDIN_FILENO);
  EXPECT_EQ(portsOf(kernel, {getpid()}).size(), 1U);
  dup2(input.get(), STDIN_FILENO);
}

TEST(LinuxSockets, FindsTheSocketsOfOtherNetworkNamespaces) {
  LinuxKernel kernel;
  std::optional<ObedientChild> away{std::in_place};
  if (away->ask(Command::enterNetwork) != 0) GTEST_SKIP() << "it may not make a namespace";
  const std::int32_t number = away->ask(Command::listen);
  const auto ports = portsOf(kernel, {away->pid()});
  if (ports.empty() && getuid() != 0) GTEST_SKIP() << "the namespace may not be read";
  ASSERT_EQ(ports.size(), 1U);
  // Handed over, so that the one process that stays in the namespace has no socket open.
  ObedientChild home;
  const FileDescriptor socket = away->take(number);
  home.give(socket);
  const pid_t heir = away->ask(Command::forkHeir);
  away.reset();
  EXPECT_EQ(portsOf(kernel, {heir, home.pid()}), Rows{row("tcp", "0.0.0.0", portOf(socket), home)});
  kill(heir, SIGKILL);
}

TEST(LinuxSockets, FindsTheSocketsThatAThreadHasToItself) {
  LinuxKernel kernel;
  ObedientChild child;
  child.ask(Command::startThread);
  const auto port = std::to_string(child.ask(Command::startThreadApart));
  EXPECT_EQ(portsOf(kernel, {child.pid()}), Rows{row("tcp", "0.0.0.0", port, child)});
}

TEST(LinuxSockets, ReadsTheTablesInWhichTheKernelCountsSockets) {
  const TemporaryDirectory directory;
  const std::string net = directory / "1/net/";
  std::filesystem::create_directories(net);
  std::filesystem::create_directories(directory / "2/net/tcp");  // Which cannot be read.
  const std::array tables{"tcp", "tcp6", "udp", "udp6"};
  for (std::uint32_t i = 0; i < 12; ++i) {  // Three lines each, which end in different pieces.
    std::ofstream(net + tables[i % 4], std::ios::app)
        << "0: 0100007F:1F90 0 0A 0 0 0 0 0 " << i + 1 << std::string(20'000, ' ') << "1\n";
  }
  const FileDescriptor opened{open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  for (std::uint32_t used = 0; used <= 4; ++used) {
    const auto count = [used](std::uint32_t i) { return i == used ? " inuse 10" : " inuse 0"; };
    if (used > 0) {  // At first there are no counts.
      std::ofstream(net + "sockstat") << "sockets: used 292\nTCP:" << count(1)
                                      << " orphan 0\nUDP:" << count(3) << " mem 0\nRAW: inuse 0\n";
      std::ofstream(net + "sockstat6") << "TCP6:" << count(2) << "\nUDP6:" << count(4) << "\n";
    }
    SocketTable table;
    SocketTable::Progress progress{};
    for (const std::int32_t member : {2, 1}) table.addFrom(ProcFiles{opened}, member, progress);
    EXPECT_EQ(std::ranges::count(progress, true), 4);
    for (std::uint32_t i = 0; i < 12; ++i) {
      EXPECT_EQ(table.find(i + 1) != nullptr, used == 0 || i % 4 + 1 == used) << i << " " << used;
    }
  }
}

/// In another namespace, whose tables the kernel gives piece by piece.
TEST(LinuxSockets, SkipsNoneWhileOthersComeAndGo) {
  constexpr int count = 400;
  ObedientChild child;
  if (child.ask(Command::enterNetwork) != 0) GTEST_SKIP() << "it may not make a namespace";
  child.ask(Command::churnSockets, count);
  const ProcFiles proc{procDirectory};
  auto inodes = readSocketDescriptors(proc, child.pid()).inodes;
  if (inodes.empty() && getuid() != 0) GTEST_SKIP() << "the namespace may not be read";
  inodes.resize(1 + count);  // The socket to its parent, and those that stay.
  for (int reading = 0; reading < 20; ++reading) {
    SocketTable table;
    SocketTable::Progress progress{};
    table.addFrom(proc, child.pid(), progress);
    EXPECT_EQ(std::ranges::count_if(inodes, [&](auto each) { return table.find(each); }), count);
  }
}

TEST(LinuxListings, DetectWhatIsDoneToAnIdleProcess) {
  LinuxKernel kernel{shortIdleAge};
  ObedientChild parent, child;
  std::optional<ObedientChild> reaped{std::in_place};
  const pid_t heir = parent.ask(Command::forkHeir), orphan = reaped->ask(Command::forkHeir);
  const FileDescriptor socket = makeSocket(SocketUse::tcpListening);  // Goes on listening.
  const std::int32_t number = child.give(socket);
  const pid_t sharing = child.ask(Command::forkSharing, number);
  FileDescriptor terminal{posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)};
  char path[64] = "/dev/none";  // There may be no pseudo-terminals here.
  if (terminal && grantpt(terminal.get()) == 0 && unlockpt(terminal.get()) == 0) {
    ASSERT_EQ(ptsname_r(terminal.get(), path, sizeof path), 0);
    ASSERT_EQ(child.ask(Command::takeTerminal, path), 0);
  }
  for (int listing = 0; listing < 4; ++listing) {  // They are remembered after three.
    EXPECT_EQ(processesOf(kernel, {heir}).at(0).parentPID, parent.pid());
    EXPECT_EQ("/dev/" + processesOf(kernel, {child.pid()}).at(0).tty.value_or("none"), path);
    EXPECT_EQ(portsOf(kernel, {child.pid(), sharing}).size(), 2U);
    std::this_thread::sleep_for(shortIdleAge * 3 / 2);
  }
  parent.ask(Command::listen);
  EXPECT_EQ(portsOf(kernel, {parent.pid()}).size(), 1U);
  parent.ask(Command::listen);
  listRawProcesses(kernel);  // Which finds that it has run, and reads no sockets.
  std::this_thread::sleep_for(shortIdleAge * 3 / 2);
  EXPECT_EQ(portsOf(kernel, {parent.pid()}).size(), 2U);
  terminal.reset();
  EXPECT_EQ(processesOf(kernel, {child.pid()}).at(0).tty, std::nullopt) << "it was hung up";
  kill(parent.pid(), SIGKILL);
  siginfo_t ended{};
  waitid(P_PID, static_cast<id_t>(parent.pid()), &ended, WEXITED | WNOWAIT);
  EXPECT_NE(processesOf(kernel, {heir}).at(0).parentPID, parent.pid()) << "it is a zombie now";
  EXPECT_EQ(processesOf(kernel, {parent.pid()}).size(), 1U);
  const pid_t before = processesOf(kernel, {orphan}).at(0).parentPID;
  reaped.reset();
  EXPECT_NE(processesOf(kernel, {orphan}).at(0).parentPID, before);
  kill(orphan, SIGKILL);
  kill(heir, SIGKILL);
  kill(sharing, SIGUSR1);
  const std::string link = "/proc/" + std::to_string(child.pid()) + "/fd/" + std::to_string(number);
  while (access(link.c_str(), F_OK) == 0) std::this_thread::yield();
  EXPECT_EQ(portsOf(kernel, {child.pid(), sharing}), Rows{});
}

}  // namespace
}  // namespace tessaloom
