#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <memory>
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
    SocketUse use;
    const char* address;
    const char* transport;  ///< Null for no row.
  };
  const Row rows[] = {
      {SocketUse::tcpListening, "127.0.0.1", "tcp"},
      {SocketUse::tcpListening, "::1", "tcp"},
      {SocketUse::tcpUnused, "127.0.0.1", nullptr},
      {SocketUse::udpBound, "127.0.0.1", "udp"},
      {SocketUse::udpBound, "::1", "udp"},
      {SocketUse::udpBound, "::ffff:127.0.0.1", "udp"},
      {SocketUse::udpConnected, "127.0.0.1", "udp"},
      {SocketUse::udpUnbound, "127.0.0.1", nullptr},
  };
  LinuxKernel kernel;
  ObedientChild child;
  std::vector<PortSample> expected;
  for (const auto& [use, address, transport] : rows) {
    const FileDescriptor socket = makeSocket(use, address);
    if (!socket) continue;  // A machine without IPv6.
    child.give(socket);
    if (transport != nullptr) expected.push_back(row(child, socket, transport, address));
  }
  EXPECT_EQ(portsOf(kernel, {child.pid()}), expected);
}

TEST(LinuxSocketTable, TellsEveryHolderOnce) {
  LinuxKernel kernel;
  ObedientChild child;
  ObedientChild other;
  const FileDescriptor first = makeSocket(SocketUse::tcpListening);
  const FileDescriptor second = makeSocket(SocketUse::tcpListening);
  child.ask(Command::duplicate, child.give(first));
  child.give(second);
  other.give(second);
  // Another socket on the same address and port gives an equal row.
  child.give(makeSocket(SocketUse::tcpListening, "127.0.0.1", portOf(first)));

  std::vector expected{row(child, first, "tcp", "127.0.0.1"),
                       row(child, second, "tcp", "127.0.0.1"),
                       row(other, second, "tcp", "127.0.0.1")};
  if (other.pid() < child.pid()) std::ranges::rotate(expected, expected.begin() + 2);
  EXPECT_EQ(portsOf(kernel, {child.pid(), other.pid()}), expected);
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
    own.push_back(makeSocket(use, "::1"));
  }
  const SocketsByInode dumped = dumpSockets(procDirectory).byInode;
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
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  const FileDescriptor readEnd{ready[0]};
  const FileDescriptor writeEnd{ready[1]};
  const pid_t pid = fork();
  if (pid == 0) {
    const bool made = unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0;
    const FileDescriptor socket = makeSocket(SocketUse::tcpUnused);
    const bool listens = made && listen(socket.get(), 1) == 0;
    const std::int64_t port = listens ? portOf(socket) : 0;
    if (write(ready[1], &port, sizeof port) != sizeof port) _exit(1);
    for (;;) pause();
  }
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

class SocketHoldersTest : public testing::Test {
 protected:
  /// The entry of the child in a listing; null when it is not there.
  std::shared_ptr<const HeldSockets> find(SocketHolders& among) {
    for (const auto& held : among.read(getuid(), true).holders) {
      if (held->pid == child.pid()) return held;
    }
    return nullptr;
  }
  /// An entry that a later listing used again; null when that never happens. On a busy machine it
  /// takes a while until a process that has answered is off its processor.
  std::shared_ptr<const HeldSockets> findSettled() {
    for (int attempt = 0; attempt < 10; ++attempt) {
      auto known = find(holders);
      std::this_thread::sleep_for(settled * 2);
      if (find(holders) == known) return known;
    }
    return nullptr;
  }

  const FileDescriptor procDirectory = openAt(AT_FDCWD, "/proc", O_DIRECTORY);
  SocketHolders holders{procDirectory, settled};
  ObedientChild child;
};

TEST_F(SocketHoldersTest, LooksAgainOnlyAtProcessesThatRan) {
  const std::int32_t number = child.give(makeSocket(SocketUse::tcpListening));
  auto known = findSettled();
  if (!known) GTEST_SKIP() << "this kernel does not count how often a process runs";
  // The number of descriptors stays what it was.
  const std::int32_t other = child.give(makeSocket(SocketUse::udpBound));
  child.ask(Command::close, number);
  auto changed = find(holders);
  ASSERT_NE(changed, nullptr);
  EXPECT_NE(changed, known);
  ASSERT_FALSE(changed->descriptors.empty());
  EXPECT_EQ(changed->descriptors.back().number, other);

  holders.forget();
  EXPECT_NE(find(holders), changed);
}

TEST_F(SocketHoldersTest, TrustsNothingThatIsTooFreshNorAProcessWithThreads) {
  SocketHolders patient{procDirectory, std::chrono::hours{1}};
  EXPECT_NE(find(patient), find(patient));
  child.ask(Command::startThread);
  find(holders);  // A process that is met again may be remembered.
  auto known = find(holders);
  std::this_thread::sleep_for(settled * 2);
  EXPECT_NE(find(holders), known);
}

/// Processes that do at random what changes a listing.
class Churn {
 public:
  explicit Churn(std::uint32_t seed) : random_(seed) {
    for (auto& child : children_) child = std::make_unique<Child>();
  }

  std::vector<pid_t> pids() const {
    std::vector<pid_t> all;
    for (const auto& child : children_) {
      all.push_back(child->process.pid());
      all.insert(all.end(), child->twins.begin(), child->twins.end());
    }
    return all;
  }

  void step() {
    std::unique_ptr<Child>& slot = children_[pick(children_.size())];
    auto& [process, numbers, twins] = *slot;
    const auto action = pick(10);
    if (action == 0) {
      slot = std::make_unique<Child>();  // Its twins end with it, some time.
    } else if (action == 1) {
      twins.push_back(process.ask(Command::forkTwin));
    } else if (action == 2) {
      process.ask(Command::execAgain);
    } else if (action == 3) {
      process.ask(Command::setName, "name " + std::to_string(pick(1000)));
    } else if (action <= 5 || numbers.empty()) {
      numbers.insert(process.give(makeSocket(static_cast<SocketUse>(pick(5)), anyAddress())));
    } else if (action == 6) {
      numbers.insert(process.ask(Command::duplicate, anyOf(numbers)));
    } else if (action == 7) {
      process.ask(Command::duplicateOnto, anyOf(numbers), anyOf(numbers));
    } else {
      const std::int32_t number = anyOf(numbers);
      const FileDescriptor taken = process.take(number);
      numbers.erase(number);
      if (action == 8) return;
      Child& taker = *children_[pick(children_.size())];
      taker.numbers.insert(taker.process.give(taken));
    }
  }

 private:
  struct Child {
    ObedientChild process;
    std::set<std::int32_t> numbers;  ///< Of descriptors that it was given; -1 for none.
    std::vector<pid_t> twins;
  };

  std::size_t pick(std::size_t count) { return random_() % count; }
  const char* anyAddress() { return pick(2) == 0 ? "127.0.0.1" : "::1"; }
  std::int32_t anyOf(const std::set<std::int32_t>& numbers) {
    return *std::next(numbers.begin(), static_cast<std::ptrdiff_t>(pick(numbers.size())));
  }

  std::mt19937 random_;
  std::array<std::unique_ptr<Child>, 5> children_;
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
