#include "linux/SocketDescriptors.h"

#include <fcntl.h>
#include <linux/kcmp.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <expected>
#include <string_view>
#include <vector>

#include "linux/ProcParser.h"

namespace tessaloom {

namespace {

/// `number`: a process or a thread.
void addSockets(const ProcFiles& proc, std::int32_t number, std::vector<std::uint32_t>& inodes) {
  const FileDescriptor directory = proc.open(ProcPath{number, "fd"}, O_DIRECTORY);
  const auto descriptors = directory ? listNumbers(directory) : std::nullopt;
  if (!descriptors) return;
  for (const std::int32_t descriptor : *descriptors) {
    std::array<char, 64> target;
    const ssize_t length =
        ::readlinkat(directory.get(), ProcPath{descriptor}.text(), target.data(), target.size());
    const std::string_view link(target.data(),
                                static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    if (const auto inode = parseInodeLink("socket", link)) inodes.push_back(*inode);
  }
}

/// Of this process. Other threads open and close descriptors meanwhile, as they do in any other
/// process.
void addIfSocket(std::int32_t descriptor, std::vector<std::uint32_t>& inodes) {
  struct statx status{};
  if (statx(descriptor, "", AT_EMPTY_PATH, STATX_TYPE | STATX_INO, &status) != 0) return;
  if (S_ISSOCK(status.stx_mode)) inodes.push_back(static_cast<std::uint32_t>(status.stx_ino));
}

/// Whether the kernel shows nothing of a process or thread. Then each link of its descriptors would
/// be refused by the same rule, so they are not listed.
bool isRefused(const std::expected<std::uint32_t, int>& network) {
  return !network && network.error() == EACCES;
}

constexpr long isSame = 0;
constexpr long isBefore = 1;

/// How the kernel orders the tables of descriptors of two processes or threads (kcmp(2)); negative
/// where it does not say.
long compareTables(std::int32_t first, std::int32_t second) {
  return ::syscall(SYS_kcmp, first, second, KCMP_FILES, 0, 0);
}

}  // namespace

SocketDescriptors readSocketDescriptors(const ProcFiles& proc, std::int32_t pid) {
  const auto network = proc.networkNamespace(pid);
  SocketDescriptors sockets{.inodes = {}, .networkNamespace = network.value_or(0)};
  if (!isRefused(network)) addSockets(proc, pid, sockets.inodes);
  return sockets;
}

SocketDescriptors readOwnSocketDescriptors(const ProcFiles& proc, const std::vector<bool>& kept) {
  SocketDescriptors sockets;
  std::array<char, 4096> buffer;
  const auto room = parseDescriptorRoom(proc.read(ProcPath{::getpid(), "status"}, buffer));
  std::vector<pollfd> asked;
  for (std::int32_t number = 0; number < room.value_or(0); ++number) {
    const auto index = static_cast<std::size_t>(number);
    if (index >= kept.size() || !kept[index]) {
      asked.push_back({.fd = number, .events = 0, .revents = 0});
    }
  }
  // Most numbers are unused, and one call says which. It is refused for more numbers than this
  // process may have, which somebody may have lowered; then each is examined.
  if (::poll(asked.data(), asked.size(), 0) >= 0) {
    std::erase_if(asked, [](const pollfd& each) { return (each.revents & POLLNVAL) != 0; });
  }
  for (const pollfd& each : asked) addIfSocket(each.fd, sockets.inodes);
  return sockets;
}

std::vector<NamespaceMember> addSocketsOfThreads(const ProcFiles& proc, std::int32_t pid,
                                                 SocketDescriptors& sockets) {
  std::vector<NamespaceMember> members;
  // One thread for each table that was read, in the kernel's order of them: there may be thousands.
  std::vector<std::int32_t> tables{pid};
  for (const std::int32_t thread :
       proc.listNumbers(ProcPath{pid, "task"}.text()).value_or(std::vector<std::int32_t>{})) {
    if (thread == pid) continue;
    const auto network = proc.networkNamespace(thread);
    if (isRefused(network)) continue;
    if (network && *network != sockets.networkNamespace) members.push_back({*network, thread});
    const auto place = std::ranges::lower_bound(
        tables, thread,
        [](std::int32_t one, std::int32_t other) { return compareTables(one, other) == isBefore; });
    // Where the kernel does not compare, the first table that has sockets counts as the only one.
    const long order = place == tables.end() ? isBefore : compareTables(*place, thread);
    if (order == isSame || (order < 0 && !sockets.inodes.empty())) continue;
    addSockets(proc, thread, sockets.inodes);
    tables.insert(place, thread);
  }
  return members;
}

std::optional<bool> shareDescriptors(std::int32_t first, std::int32_t second) {
  const long order = compareTables(first, second);
  if (order < 0) return std::nullopt;
  return order == isSame;
}

}  // namespace tessaloom
