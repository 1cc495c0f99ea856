#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "HelperCore/linux/LiveListings.h"
#include "linux/LinuxKernel.h"
#include "linux/ProcFiles.h"
#include "linux/SocketDump.h"
#include "linux/SocketHolders.h"
#include "support/ObedientChild.h"

namespace tessaloom::linux_kernel {
namespace {

using Command = ObedientChild::Command;

PortSample row(const ObedientChild& child, const FileDescriptor& socket, const char* transport,
               const char* address) {
  return {portOf(socket), transport, child.pid(), "obedient-proces", address};
}

TEST(LinuxSocketTable, ListsTheSocketsThatWait) {
  struct Row {
    const char* name;
    SocketUse use;
    int family;
    const char* transport;  ///< Null for no row.
    const char* address;
  };
  const Row rows[] = {
      {"TCP that listens", SocketUse::tcpListening, AF_INET, "tcp", "127.0.0.1"},
      {"TCP over IPv6 that listens", SocketUse::tcpListening, AF_INET6, "tcp", "::1"},
      {"TCP that does nothing", SocketUse::tcpUnused, AF_INET, nullptr, nullptr},
      {"UDP that is bound", SocketUse::udpBound, AF_INET, "udp", "127.0.0.1"},
      {"UDP over IPv6 that is bound", SocketUse::udpBound, AF_INET6, "udp", "::1"},
      {"UDP that is connected", SocketUse::udpConnected, AF_INET, "udp", "127.0.0.1"},
      {"UDP that is not bound", SocketUse::udpUnbound, AF_INET, nullptr, nullptr},
  };
  LinuxKernel kernel;
  for (const Row& each : rows) {
    SCOPED_TRACE(each.name);
    FileDescriptor socket = makeSocket(each.use, each.family);
    if (!socket) continue;  // A machine without IPv6.
    ObedientChild child;
    child.give(socket);
    std::vector<PortSample> expected;
    if (each.transport != nullptr) {
      expected.push_back(row(child, socket, each.transport, each.address));
    }
    EXPECT_EQ(portsOf(kernel, {child.pid()}), expected);
  }
}

TEST(LinuxSocketTable, KeepsMappedAddresses) {
  FileDescriptor socket{::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  inet_pton(AF_INET6, "::ffff:127.0.0.1", &address.sin6_addr);
  if (bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    GTEST_SKIP() << "there is no IPv6 here";
  }
  LinuxKernel kernel;
  ObedientChild child;
  child.give(socket);
  EXPECT_EQ(portsOf(kernel, {child.pid()}),
            std::vector{row(child, socket, "udp", "::ffff:127.0.0.1")});
}

TEST(LinuxSocketTable, TellsEveryHolderOnce) {
  LinuxKernel kernel;
  FileDescriptor first = makeSocket(SocketUse::tcpListening, AF_INET, true);
  FileDescriptor second = makeSocket(SocketUse::tcpListening);
  ObedientChild child;
  ObedientChild other;
  std::int32_t number = child.give(first);
  child.ask(Command::duplicate, number);
  child.give(second);
  other.give(second);
  // Another socket on the same address and port gives an equal row.
  FileDescriptor twin{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  int on = 1;
  setsockopt(twin.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
  sockaddr_in address{};
  socklen_t length = sizeof address;
  auto* name = reinterpret_cast<sockaddr*>(&address);
  getsockname(first.get(), name, &length);
  ASSERT_EQ(bind(twin.get(), name, length), 0);
  ASSERT_EQ(listen(twin.get(), 1), 0);
  child.give(twin);

  auto rows = portsOf(kernel, {child.pid(), other.pid()});
  const std::vector ofChild{row(child, first, "tcp", "127.0.0.1"),
                            row(child, second, "tcp", "127.0.0.1")};
  std::vector expected = ofChild;
  expected.push_back(row(other, second, "tcp", "127.0.0.1"));
  if (other.pid() < child.pid()) std::ranges::rotate(expected, expected.begin() + 2);
  EXPECT_EQ(rows, expected);
}

TEST(LinuxSocketTable, ListsTheHelperItself) {
  LinuxKernel kernel;
  FileDescriptor first = makeSocket(SocketUse::tcpListening);
  FileDescriptor second = makeSocket(SocketUse::udpBound);
  std::vector<std::int64_t> ports;
  for (const PortSample& row : portsOf(kernel, {getpid()})) ports.push_back(row.port());
  EXPECT_EQ(ports, (std::vector{portOf(first), portOf(second)}));
}

TEST(LinuxSocketTable, LeavesOutWhatMayNotBeLookedAt) {
  if (getuid() == 0) GTEST_SKIP() << "root may look at every process";
  LinuxKernel kernel;
  ObedientChild child;
  child.give(makeSocket(SocketUse::tcpListening));
  EXPECT_EQ(portsOf(kernel, {child.pid()}).size(), 1U);
  child.ask(Command::hideFromOthers);
  EXPECT_TRUE(portsOf(kernel, {child.pid()}).empty());
}

TEST(LinuxSocketTable, ReadsTheSameFromEitherSource) {
  const FileDescriptor procDirectory = openAt(AT_FDCWD, "/proc", O_DIRECTORY);
  std::vector<FileDescriptor> own;
  for (SocketUse use : {SocketUse::tcpListening, SocketUse::udpBound, SocketUse::udpConnected,
                        SocketUse::tcpUnused, SocketUse::udpUnbound}) {
    own.push_back(makeSocket(use));
    own.push_back(makeSocket(use, AF_INET6));
  }
  SocketsByInode dumped = dumpSockets(procDirectory).byInode;
  DumpedSockets read;
  ASSERT_TRUE(addSocketsOfProcess(procDirectory, getpid(), read));
  for (const FileDescriptor& socket : own) {
    struct stat status{};
    if (!socket || fstat(socket.get(), &status) != 0) continue;
    auto a = dumped.find(status.st_ino);
    auto b = read.byInode.find(status.st_ino);
    ASSERT_EQ(a == dumped.end(), b == read.byInode.end());
    if (a == dumped.end()) continue;
    EXPECT_EQ(a->second, b->second);
  }
}

TEST(LinuxSocketTable, ReachesIntoOtherNetworkNamespaces) {
  // A forked process makes the namespace and gives its socket to a child that stays there.
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  FileDescriptor readEnd{ready[0]};
  pid_t pid = fork();
  if (pid == 0) {
    bool made = unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0;
    FileDescriptor socket{::socket(AF_INET, SOCK_STREAM, 0)};
    bool listens = made && listen(socket.get(), 1) == 0;
    std::int64_t port = listens ? portOf(socket) : 0;
    if (write(ready[1], &port, sizeof port) != sizeof port) _exit(1);
    for (;;) pause();
  }
  FileDescriptor{ready[1]}.reset();
  std::int64_t port = 0;
  ASSERT_EQ(read(readEnd.get(), &port, sizeof port), static_cast<ssize_t>(sizeof port));
  LinuxKernel kernel;
  auto rows = portsOf(kernel, {pid});
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  if (port == 0) GTEST_SKIP() << "making a network namespace takes rights that are not there";
  if (rows.empty() && getuid() != 0) GTEST_SKIP() << "the namespace may not be looked at";
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_EQ(rows[0].port(), port);
  EXPECT_EQ(rows[0].address(), "0.0.0.0");
}

/// Old enough on a machine that ticks at least a hundred times a second, and is busy.
constexpr std::chrono::milliseconds settled{100};

class SocketHoldersTest : public testing::Test {
 protected:
  /// The entry of a process in a listing; null when it is not there.
  std::shared_ptr<const HeldSockets> find(const ObedientChild& child) {
    for (const auto& held : holders.read(getuid(), true).holders) {
      if (held->pid == child.pid()) return held;
    }
    return nullptr;
  }
  /// An entry that a later listing used again; null when that never happens. On a busy machine it
  /// takes a while until a process that has answered is off its processor.
  std::shared_ptr<const HeldSockets> findSettled(const ObedientChild& child) {
    for (int attempt = 0; attempt < 10; ++attempt) {
      auto known = find(child);
      std::this_thread::sleep_for(settled * 2);
      if (find(child) == known) return known;
    }
    return nullptr;
  }

  const FileDescriptor procDirectory = openAt(AT_FDCWD, "/proc", O_DIRECTORY);
  SocketHolders holders{procDirectory, settled};
};

TEST_F(SocketHoldersTest, LooksAgainOnlyAtProcessesThatRan) {
  ObedientChild child;
  std::int32_t number = child.give(makeSocket(SocketUse::tcpListening));
  auto known = findSettled(child);
  if (!known) GTEST_SKIP() << "this kernel does not count how often a process runs";
  // The number of descriptors stays what it was.
  std::int32_t other = child.give(makeSocket(SocketUse::udpBound));
  child.ask(Command::close, number);
  auto changed = find(child);
  ASSERT_NE(changed, nullptr);
  EXPECT_NE(changed, known);
  ASSERT_FALSE(changed->descriptors.empty());
  EXPECT_EQ(changed->descriptors.back().number, other);

  holders.forget();
  EXPECT_NE(find(child), changed);
}

TEST_F(SocketHoldersTest, NeverTrustsAProcessWithThreads) {
  ObedientChild child;
  child.ask(Command::startThread);
  auto known = find(child);
  std::this_thread::sleep_for(settled * 2);
  EXPECT_NE(find(child), known);
}

TEST_F(SocketHoldersTest, TrustsNothingThatIsTooFresh) {
  SocketHolders patient{procDirectory, std::chrono::hours{1}};
  ObedientChild child;
  auto entry = [&] {
    auto all = patient.read(getuid(), true).holders;
    return *std::ranges::find(all, child.pid(), [](const auto& held) { return held->pid; });
  };
  EXPECT_NE(entry(), entry());
}

/// Processes that do at random what changes a listing.
class Churn {
 public:
  explicit Churn(std::uint32_t seed) : random_(seed) {
    for (int i = 0; i < 5; ++i) children_.emplace_back();
  }

  std::vector<pid_t> pids() const {
    std::vector<pid_t> all;
    for (const Child& child : children_) {
      all.push_back(child.process.pid());
      all.insert(all.end(), child.twins.begin(), child.twins.end());
    }
    return all;
  }

  void step() {
    Child& child = children_[pick(children_.size())];
    switch (pick(10)) {
      case 0:
        // Its twins end with it, some time.
        child = Child{};
        return;
      case 1:
        child.twins.push_back(child.process.ask(Command::forkTwin));
        return;
      case 2:
        child.process.ask(Command::execAgain);
        return;
      case 3:
        child.process.ask(Command::setName, "name " + std::to_string(pick(1000)));
        return;
      case 4:
      case 5:
        hold(child, child.process.give(makeSocket(anyUse(), pick(2) == 0 ? AF_INET : AF_INET6)));
        return;
      case 6:
        withOne(child, [&](std::int32_t number) {
          child.process.ask(Command::close, number);
          child.numbers.erase(number);
        });
        return;
      case 7:
        withOne(child, [&](std::int32_t number) {
          hold(child, child.process.ask(Command::duplicate, number));
        });
        return;
      case 8:
        withOne(child, [&](std::int32_t number) {
          withOne(child, [&](std::int32_t onto) {
            child.process.ask(Command::duplicateOnto, number, onto);
          });
        });
        return;
      default:
        withOne(child, [&](std::int32_t number) {
          Child& taker = children_[pick(children_.size())];
          child.numbers.erase(number);
          hold(taker, taker.process.give(child.process.take(number)));
        });
    }
  }

 private:
  struct Child {
    ObedientChild process;
    std::set<std::int32_t> numbers{};  ///< Of descriptors that it was given.
    std::vector<pid_t> twins{};
  };

  std::size_t pick(std::size_t count) { return random_() % count; }
  SocketUse anyUse() { return static_cast<SocketUse>(pick(5)); }
  static void hold(Child& child, std::int32_t number) {
    if (number >= 0) child.numbers.insert(number);
  }
  template <class Action>
  void withOne(Child& child, Action action) {
    if (child.numbers.empty()) return;
    action(
        *std::next(child.numbers.begin(), static_cast<std::ptrdiff_t>(pick(child.numbers.size()))));
  }

  std::mt19937 random_;
  std::vector<Child> children_;
};

/// Without what may differ: two kernels may take the boot for different ticks, and a process that
/// just started still grows.
std::vector<RawProcess> comparable(std::vector<RawProcess> rows) {
  for (RawProcess& each : rows) {
    each.startSec = each.startUSec = 0;
    each.residentBytes = 0;
  }
  return rows;
}

TEST(LinuxListingsUnderChurn, EqualThoseOfAFreshStart) {
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Churn churn{seed};
  LinuxKernel kernel{settled};
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds{4};
  for (int round = 0; std::chrono::steady_clock::now() < end; ++round) {
    churn.step();
    const auto pids = churn.pids();
    LinuxKernel fresh;
    EXPECT_EQ(portsOf(kernel, pids), portsOf(fresh, pids)) << "after step " << round;
    EXPECT_EQ(comparable(processesOf(kernel, pids)), comparable(processesOf(fresh, pids)))
        << "after step " << round;
    if (testing::Test::HasFailure()) return;
  }
}

}  // namespace
}  // namespace tessaloom::linux_kernel
