#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "HelperCore/linux/LiveListings.h"
#include "linux/LinuxKernel.h"
#include "support/ObedientChild.h"

namespace tessaloom {
namespace {

using Command = ObedientChild::Command;

PortSample row(const ObedientChild& child, const FileDescriptor& socket, const char* transport,
               const char* address) {
  return {portOf(socket), transport, child.pid(), "obedient-proces", address};
}

TEST(LinuxSockets, ListsTheSocketsThatWait) {
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

TEST(LinuxSockets, ListsTheHelperItself) {
  LinuxKernel kernel;
  FileDescriptor first = makeSocket(SocketUse::tcpListening);
  FileDescriptor second = makeSocket(SocketUse::udpBound);
  // Of its descriptors, those that it keeps of others are left out.
  processesOf(kernel, {getpid()});
  std::vector<std::int64_t> ports;
  for (const PortSample& row : portsOf(kernel, {getpid()})) ports.push_back(row.port());
  EXPECT_EQ(ports, (std::vector{portOf(first), portOf(second)}));
}

TEST(LinuxSockets, LeavesOutWhatMayNotBeLookedAt) {
  if (getuid() == 0) GTEST_SKIP() << "root may look at every process";
  LinuxKernel kernel;
  ObedientChild child;
  child.give(makeSocket(SocketUse::tcpListening));
  EXPECT_EQ(portsOf(kernel, {child.pid()}).size(), 1U);
  child.ask(Command::hideFromOthers);
  EXPECT_TRUE(portsOf(kernel, {child.pid()}).empty());
}

std::vector<std::int64_t> portNumbers(Kernel& kernel, const std::vector<pid_t>& pids) {
  std::vector<std::int64_t> numbers;
  for (const PortSample& each : portsOf(kernel, pids)) numbers.push_back(each.port());
  return numbers;
}

TEST(LinuxSockets, FindsTheSocketsOfOtherNetworkNamespaces) {
  LinuxKernel kernel;
  std::optional<ObedientChild> away{std::in_place};
  if (away->ask(Command::enterNetwork) != 0) {
    GTEST_SKIP() << "making a network namespace takes rights that are not there";
  }
  const std::int32_t number = away->ask(Command::listen);
  const auto ports = portNumbers(kernel, {away->pid()});
  if (ports.empty() && getuid() != 0) GTEST_SKIP() << "the namespace may not be looked at";
  ASSERT_EQ(ports.size(), 1U);
  // Handed over, so that the one process that stays in the namespace has no socket open.
  ObedientChild home;
  home.give(away->take(number));
  const pid_t heir = away->ask(Command::forkHeir);
  away.reset();
  EXPECT_EQ(portNumbers(kernel, {heir, home.pid()}), ports);
  EXPECT_EQ(portsOf(kernel, {home.pid()}).at(0).address(), "0.0.0.0");
  kill(heir, SIGKILL);
}

TEST(LinuxSockets, FindsTheSocketsThatAThreadHasToItself) {
  LinuxKernel kernel;
  ObedientChild child;
  child.ask(Command::startThread);
  const std::int64_t port = child.ask(Command::startThreadApart);
  ASSERT_GT(port, 0);
  EXPECT_EQ(portNumbers(kernel, {child.pid()}), std::vector{port});
}

/// In another namespace, whose tables the kernel gives piece by piece.
TEST(LinuxSockets, SkipsNoneWhileOthersComeAndGo) {
  constexpr std::int64_t count = 400;
  constexpr std::int64_t firstStaying = 10'000;
  constexpr std::int64_t firstComingAndGoing = 20'000;
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  const FileDescriptor readEnd{ready[0]};
  const FileDescriptor writeEnd{ready[1]};
  const pid_t pid = fork();
  if (pid == 0) {
    const bool made = unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0;
    auto open = [](std::int64_t first) {
      std::vector<FileDescriptor> sockets;
      for (std::int64_t i = 0; i < count; ++i) {
        sockets.push_back(makeSocket(SocketUse::udpBound, "0.0.0.0", first + i));
      }
      return sockets;
    };
    const auto staying = open(firstStaying);
    if (write(ready[1], &made, sizeof made) != sizeof made) _exit(1);
    while (getppid() != 1) open(firstComingAndGoing);
    _exit(0);
  }
  bool made = false;
  ASSERT_EQ(read(readEnd.get(), &made, sizeof made), static_cast<ssize_t>(sizeof made));
  LinuxKernel kernel;
  std::vector<std::ptrdiff_t> found;
  for (int listing = 0; listing < 20; ++listing) {
    found.push_back(std::ranges::count_if(portNumbers(kernel, {pid}), [](std::int64_t port) {
      return port >= firstStaying && port < firstStaying + count;
    }));
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  if (!made) GTEST_SKIP() << "making a network namespace takes rights that are not there";
  if (found[0] == 0 && getuid() != 0) GTEST_SKIP() << "the namespace may not be looked at";
  EXPECT_EQ(found, std::vector<std::ptrdiff_t>(20, count));
}

TEST(LinuxSockets, SeesWhatAnotherProcessDoesWithASharedTable) {
  LinuxKernel kernel{settled};
  ObedientChild child;
  const FileDescriptor socket = makeSocket(SocketUse::tcpListening);  // Goes on listening.
  const std::int32_t number = child.give(socket);
  const pid_t sharing = child.ask(Command::forkSharing, number);
  // Long enough to be remembered.
  for (int listing = 0; listing < 4; ++listing) {
    EXPECT_EQ(portsOf(kernel, {child.pid(), sharing}).size(), 2U);
    std::this_thread::sleep_for(settled * 3 / 2);
  }
  kill(sharing, SIGUSR1);
  const std::string link = "/proc/" + std::to_string(child.pid()) + "/fd/" + std::to_string(number);
  while (access(link.c_str(), F_OK) == 0) std::this_thread::yield();
  EXPECT_TRUE(portsOf(kernel, {child.pid(), sharing}).empty());
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
    const auto comparePorts = [&] {
      EXPECT_EQ(portsOf(kernel, pids), portsOf(fresh, pids)) << "after step " << round;
    };
    // What one listing reads, the other may believe: at times the ports are not asked for.
    const bool withPorts = round % 12 < 4 || round % 12 == 11;
    if (withPorts && round % 2 == 0) comparePorts();
    EXPECT_EQ(comparable(processesOf(kernel, pids)), comparable(processesOf(fresh, pids)))
        << "after step " << round;
    if (withPorts && round % 2 == 1) comparePorts();
    if (testing::Test::HasFailure()) return;
  }
}

}  // namespace
}  // namespace tessaloom
