#include "linux/SocketTable.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

namespace tessaloom {

namespace {

struct Table {
  std::string_view file;  ///< Below a process's directory.
  std::uint8_t family;
  std::uint8_t protocol;
  std::uint32_t states;     ///< Those of the sockets that matter.
  std::string_view counts;  ///< The file with the number of its sockets, in any state,
  std::string_view none;    ///< and the part of that file when there are none.
};

constexpr std::uint32_t listening = 1U << TCP_LISTEN;
/// A bound UDP socket is "closed", or "established" once it is connected.
constexpr std::uint32_t bound = 1U << TCP_CLOSE | 1U << TCP_ESTABLISHED;
constexpr std::array<Table, SocketTable::tableCount> tables{{
    {"net/tcp", AF_INET, IPPROTO_TCP, listening, "net/sockstat", "\nTCP: inuse 0 "},
    {"net/tcp6", AF_INET6, IPPROTO_TCP, listening, "net/sockstat6", "TCP6: inuse 0\n"},
    {"net/udp", AF_INET, IPPROTO_UDP, bound, "net/sockstat", "\nUDP: inuse 0 "},
    {"net/udp6", AF_INET6, IPPROTO_UDP, bound, "net/sockstat6", "UDP6: inuse 0\n"},
}};

constexpr std::size_t bufferSize = std::size_t{32} * 1024;

/// Where sockets come and go constantly each reading finds something new, so the number is bounded.
constexpr int maximumReadings = 8;

/// How many pieces a table came in; nullopt when it cannot be read to its end.
using Pieces = std::optional<int>;

/// Calls `readOnce(reading, found)` until the table is whole: it came in one piece, or two readings
/// one after the other found the same. A reading skips a socket only when another one that it has
/// found is closed meanwhile, and then the next does not find that one. False when the table cannot
/// be read.
template <class ReadOnce>
bool readWhole(SocketsByInode& sockets, const ReadOnce& readOnce) {
  SocketsByInode previous;
  for (int reading = 0; reading < maximumReadings; ++reading) {
    SocketsByInode found;
    const Pieces pieces = readOnce(reading, found);
    sockets.insert(found.begin(), found.end());
    if (!pieces) return false;
    if (*pieces <= 1 || (reading > 0 && found == previous)) return true;
    previous = std::move(found);
  }
  return true;
}

/// The kernel fills a piece up to a page, or as far as the reader's buffer allows. Every other
/// reading begins with a shorter piece, so that what is at the point where one reading continues is
/// in the middle of a piece of the next.
Pieces readTextOnce(const FileDescriptor& file, int reading, std::int32_t protocol,
                    SocketsByInode& sockets) {
  constexpr std::size_t shortPiece = 2048;
  std::array<char, bufferSize> buffer;
  if (::lseek(file.get(), 0, SEEK_SET) != 0) return std::nullopt;
  std::size_t begun = 0;  // The bytes of a line whose end has not been read.
  for (int pieces = 0;; ++pieces) {
    const std::size_t room = pieces == 0 && reading % 2 == 1 ? shortPiece : buffer.size() - begun;
    const ssize_t length = ::read(file.get(), buffer.data() + begun, room);
    if (length < 0) return std::nullopt;
    const std::string_view text{buffer.data(), begun + static_cast<std::size_t>(length)};
    if (length == 0) {
      addSocketsOfText(text, protocol, sockets);
      return pieces;
    }
    const std::size_t lines = text.rfind('\n') + 1;  // 0 for none.
    addSocketsOfText(text.substr(0, lines), protocol, sockets);
    begun = text.size() - lines;
    if (begun == buffer.size()) return std::nullopt;
    std::memmove(buffer.data(), buffer.data() + lines, begun);
  }
}

/// Whether a table has no socket. To give one without any, the kernel walks those of all
/// namespaces, which takes it some ten milliseconds; it also counts. A count is a sum over the
/// processors: one socket that is opened on one and closed on the next meanwhile hides another.
/// Hence two of them.
bool isEmpty(const ProcFiles& proc, std::int32_t member, const Table& table) {
  std::array<char, 1024> buffer;
  for (int reading = 0; reading < 2; ++reading) {
    if (!proc.read(ProcPath{member, table.counts}, buffer).contains(table.none)) return false;
  }
  return true;
}

bool addText(const ProcFiles& proc, std::int32_t member, const Table& table,
             SocketsByInode& sockets) {
  const FileDescriptor file = proc.open(ProcPath{member, table.file});
  return file && readWhole(sockets, [&](int reading, SocketsByInode& found) {
           return readTextOnce(file, reading, table.protocol, found);
         });
}

bool requestDump(const FileDescriptor& netlink, const Table& table) {
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
  return ::send(netlink.get(), &message, sizeof message, 0) == static_cast<ssize_t>(sizeof message);
}

Pieces dumpOnce(const FileDescriptor& netlink, const Table& table, SocketsByInode& sockets) {
  // The kernel fills datagrams of up to this size for a reader that offers as much.
  std::array<std::byte, bufferSize> buffer;
  if (!requestDump(netlink, table)) return std::nullopt;
  for (int pieces = 0;; ++pieces) {
    const ssize_t length = ::recv(netlink.get(), buffer.data(), buffer.size(), 0);
    if (length < 0 && errno == EINTR) continue;
    if (length <= 0) return std::nullopt;
    switch (addSocketsOfDump({buffer.data(), static_cast<std::size_t>(length)}, table.protocol,
                             sockets)) {
      case DumpState::more:
        continue;
      case DumpState::refused:
        return std::nullopt;
      case DumpState::interrupted:
        return pieces + 2;
      case DumpState::complete:
        return pieces;  // The last datagram only says that the dump is complete.
    }
  }
}

bool addDump(const Table& table, SocketsByInode& sockets) {
  const FileDescriptor netlink{::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)};
  return netlink && readWhole(sockets, [&](int /*reading*/, SocketsByInode& found) {
           return dumpOnce(netlink, table, found);
         });
}

}  // namespace

void SocketTable::addOwnNamespace(const ProcFiles& proc) {
  for (const Table& table : tables) {
    if (!addDump(table, sockets_)) addText(proc, ::getpid(), table, sockets_);
  }
}

void SocketTable::addFrom(const ProcFiles& proc, std::int32_t member, Progress& progress) {
  auto isRead = progress.begin();
  for (const Table& table : tables) {
    *isRead = *isRead || isEmpty(proc, member, table) || addText(proc, member, table, sockets_);
    ++isRead;
  }
}

}  // namespace tessaloom
