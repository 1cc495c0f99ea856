#include "linux/SocketDump.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "linux/DescriptorBudget.h"
#include "linux/ProcFiles.h"

namespace tessaloom::linux_kernel {

namespace {

struct Table {
  std::string_view file;  ///< Below a process's folder.
  InternetTransport transport;
  std::uint8_t family;
  std::uint8_t protocol;
  std::uint32_t states;  ///< Those of the sockets that matter.
};

// A bound UDP socket is "closed", or "established" once it is connected.
constexpr std::uint32_t listening = 1U << TCP_LISTEN;
constexpr std::uint32_t bound = 1U << TCP_CLOSE | 1U << TCP_ESTABLISHED;
constexpr std::array<Table, 4> tables{{
    {"net/tcp", InternetTransport::tcp, AF_INET, IPPROTO_TCP, listening},
    {"net/tcp6", InternetTransport::tcp, AF_INET6, IPPROTO_TCP, listening},
    {"net/udp", InternetTransport::udp, AF_INET, IPPROTO_UDP, bound},
    {"net/udp6", InternetTransport::udp, AF_INET6, IPPROTO_UDP, bound},
}};

/// The whole of a file that has no size of its own; nothing when it cannot be opened.
std::optional<std::string> readAll(int directory, const char* path) {
  const FileDescriptor file = openAt(directory, path);
  if (!file) return std::nullopt;
  constexpr std::size_t step = std::size_t{64} * 1024;
  std::string text;
  for (;;) {
    const std::size_t size = text.size();
    text.resize(size + step);
    const ssize_t length = read(file.get(), text.data() + size, step);
    text.resize(size + static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    if (length <= 0) return text;
  }
}

bool addTableOfProcess(const FileDescriptor& procDirectory, std::int32_t pid, const Table& table,
                       DumpedSockets& sockets) {
  auto text = readAll(procDirectory.get(), ProcPath{pid, table.file}.text());
  if (text) {
    addSocketsOfText(*text, table.transport, sockets.byInode);
  } else {
    sockets.ranOutOfDescriptors |= outOfDescriptors();
  }
  return text.has_value();
}

bool requestDump(int netlink, const Table& table) {
  struct {
    nlmsghdr header;
    inet_diag_req_v2 request;
  } message{};
  message.header = {.nlmsg_len = sizeof message,
                    .nlmsg_type = SOCK_DIAG_BY_FAMILY,
                    .nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP,
                    .nlmsg_seq = 0,
                    .nlmsg_pid = 0};
  message.request.sdiag_family = table.family;
  message.request.sdiag_protocol = table.protocol;
  message.request.idiag_states = table.states;
  return send(netlink, &message, sizeof message, 0) == static_cast<ssize_t>(sizeof message);
}

struct DumpOutcome {
  bool usable = false;
  bool mayLack = false;  ///< A socket may be missing because others came or went meanwhile.
};

/// A socket's inode is its alone, so what an earlier attempt already added stays right.
DumpOutcome dumpOnce(int netlink, const Table& table, SocketsByInode& sockets) {
  // The kernel fills datagrams of up to this size for a reader that offers as much.
  std::array<std::byte, 32768> buffer;
  if (!requestDump(netlink, table)) return {};
  for (int datagrams = 1;; ++datagrams) {
    const ssize_t length = recv(netlink, buffer.data(), buffer.size(), 0);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return {};
    switch (addSocketsOfDump({buffer.data(), static_cast<std::size_t>(length)}, table.transport,
                             sockets)) {
      case DumpState::more:
        continue;
      case DumpState::refused:
        return {};
      case DumpState::interrupted:
        return {.usable = true, .mayLack = true};
      case DumpState::complete:
        // The place in the kernel's table is carried from datagram to datagram as a count, so that
        // a socket is skipped when one before it is closed. The last datagram is often empty.
        return {.usable = true, .mayLack = datagrams > 2};
    }
  }
}

bool dumpTable(const Table& table, DumpedSockets& sockets) {
  const FileDescriptor netlink{socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)};
  if (!netlink) return false;
  const DumpOutcome outcome = dumpOnce(netlink.get(), table, sockets.byInode);
  // What one walk skipped, a second one right after it finds.
  if (outcome.mayLack) dumpOnce(netlink.get(), table, sockets.byInode);
  return outcome.usable;
}

}  // namespace

DumpedSockets dumpSockets(const FileDescriptor& procDirectory) {
  DumpedSockets sockets;
  for (const Table& table : tables) {
    if (!dumpTable(table, sockets)) addTableOfProcess(procDirectory, getpid(), table, sockets);
  }
  return sockets;
}

bool addSocketsOfProcess(const FileDescriptor& procDirectory, std::int32_t pid,
                         DumpedSockets& sockets) {
  bool any = false;
  for (const Table& table : tables) {
    any |= addTableOfProcess(procDirectory, pid, table, sockets);
  }
  return any;
}

}  // namespace tessaloom::linux_kernel
