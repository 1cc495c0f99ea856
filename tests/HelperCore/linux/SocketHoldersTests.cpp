#include <fcntl.h>
#include <signal.h>
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
#include "linux/SocketDescriptors.h"
#include "linux/SocketTable.h"
#include "support/ObedientChild.h"

namespace tessaloom {
namespace {

using Command = ObedientChild::Command;
using Rows = std::vector<std::string>;

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
}

TEST(LinuxSockets, ListsTheHelperItself) {
  LinuxKernel kernel;
  FileDescriptor socket = makeSocket(SocketUse::tcpListening);
  // Of its descriptors, those that it keeps of others are left out.
  processesOf(kernel, {getpid()});
  const auto rows = portsOf(kernel, {getpid()});
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_TRUE(rows[0].starts_with("tcp/127.0.0.1/" + portOf(socket) + "/"));
}

TEST(LinuxSockets, FindsTheSocketsOfOtherNetworkNamespaces) {
  LinuxKernel kernel;
  std::optional<ObedientChild> away{std::in_place};
  if (away->ask(Command::enterNetwork) != 0) {
    GTEST_SKIP() << "making a network namespace takes rights that are not there";
  }
  const std::int32_t number = away->ask(Command::listen);
  const auto ports = portsOf(kernel, {away->pid()});
  if (ports.empty() && getuid() != 0) GTEST_SKIP() << "the namespace may not be looked at";
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

/// In another namespace, whose tables the kernel gives piece by piece.
TEST(LinuxSockets, SkipsNoneWhileOthersComeAndGo) {
  constexpr int count = 100;
  ObedientChild child;
  if (child.ask(Command::enterNetwork) != 0) {
    GTEST_SKIP() << "making a network namespace takes rights that are not there";
  }
  child.ask(Command::churnSockets, count);
  const FileDescriptor procDirectory{open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  const ProcFiles proc{procDirectory};
  auto inodes = readSocketDescriptors(proc, child.pid()).inodes;
  if (inodes.empty() && getuid() != 0) GTEST_SKIP() << "the namespace may not be looked at";
  inodes.resize(1 + count);  // The socket to its parent, and those that stay.
  for (int reading = 0; reading < 20; ++reading) {
    SocketTable table;
    SocketTable::Progress progress{};
    table.addFrom(proc, child.pid(), progress);
    const auto isListed = [&table](std::uint32_t inode) { return table.find(inode) != nullptr; };
    EXPECT_EQ(std::ranges::count_if(inodes, isListed), count);
  }
}

TEST(LinuxSockets, SeesWhatAnotherProcessDoesWithASharedTable) {
  LinuxKernel kernel{settled};
  ObedientChild child;
  const FileDescriptor socket = makeSocket(SocketUse::tcpListening);  // Goes on listening.
  const std::int32_t number = child.give(socket);
  const pid_t sharing = child.ask(Command::forkSharing, number);
  listUntilRemembered([&] { EXPECT_EQ(portsOf(kernel, {child.pid(), sharing}).size(), 2U); });
  kill(sharing, SIGUSR1);
  const std::string link = "/proc/" + std::to_string(child.pid()) + "/fd/" + std::to_string(number);
  while (access(link.c_str(), F_OK) == 0) std::this_thread::yield();
  EXPECT_EQ(portsOf(kernel, {child.pid(), sharing}), Rows{});
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
    const auto action = pick(11);
    if (action == 0) {
      slot = std::make_unique<Child>();  // Its twins end with it, some time.
    } else if (action == 1) {
      twins.push_back(process.ask(Command::forkTwin));
    } else if (action == 2) {
      process.ask(Command::execAgain);
    } else if (action == 3) {
      process.ask(Command::setName, "name " + std::to_string(pick(1000)));
    } else if (action == 4) {
      process.ask(Command::hideFromOthers);  // Until it executes a program.
    } else if (action <= 6 || numbers.empty()) {
      const char* address = pick(2) == 0 ? "127.0.0.1" : "::1";
      numbers.insert(process.give(makeSocket(static_cast<SocketUse>(pick(5)), address)));
    } else if (action == 7) {
      numbers.insert(process.ask(Command::duplicate, anyOf(numbers)));
    } else if (action == 8) {
      process.ask(Command::duplicateOnto, anyOf(numbers), anyOf(numbers));
    } else {
      const std::int32_t number = anyOf(numbers);
      const FileDescriptor taken = process.take(number);
      numbers.erase(number);
      if (action == 9) return;
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
  std::int32_t anyOf(const std::set<std::int32_t>& numbers) {
    return *std::next(numbers.begin(), static_cast<std::ptrdiff_t>(pick(numbers.size())));
  }

  std::mt19937 random_;
  std::array<std::unique_ptr<Child>, 5> children_;
};

TEST(LinuxListingsUnderChurn, EqualThoseOfAFreshStart) {
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  Churn churn{seed};
  LinuxKernel kernel{settled};
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds{2};
  for (int round = 0; std::chrono::steady_clock::now() < end && !HasFailure(); ++round) {
    SCOPED_TRACE("after step " + std::to_string(round));
    churn.step();
    const auto pids = churn.pids();
    LinuxKernel fresh;
    const auto comparePorts = [&] { EXPECT_EQ(portsOf(kernel, pids), portsOf(fresh, pids)); };
    // Without what may differ: two kernels may take the boot for different ticks, and a process
    // that just started still grows.
    const auto processes = [&pids](LinuxKernel& listed) {
      Rows rows;
      for (const RawProcess& each : processesOf(listed, pids)) {
        rows.push_back(std::to_string(each.pid) + " of " + std::to_string(each.parentPID) + " " +
                       each.tty.value_or("-") + " " + each.command);
      }
      return rows;
    };
    // What one listing reads, the other may believe: at times the ports are not asked for.
    const bool withPorts = round % 12 < 4 || round % 12 == 11;
    if (withPorts && round % 2 == 0) comparePorts();
    EXPECT_EQ(processes(kernel), processes(fresh));
    if (withPorts && round % 2 == 1) comparePorts();
  }
}

}  // namespace
}  // namespace tessaloom
