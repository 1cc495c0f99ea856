#include "linux/SocketParser.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "TLFoundation/ParseNumber.h"
#include "linux/ProcParser.h"

namespace tessaloom {

namespace {

SocketInfo makeSocketInfo(std::int32_t protocol, std::uint8_t state) {
  SocketInfo info;
  info.kind = protocol == IPPROTO_TCP ? SocketInfo::Kind::tcp : SocketInfo::Kind::internet;
  info.protocol = protocol;
  if (state == TCP_LISTEN) info.tcpState = SocketInfo::TCPState::listening;
  return info;
}

void setAddress(SocketInfo& info, std::span<const std::uint8_t> address) {
  info.versionFlags = address.size() == 4 ? SocketInfo::ipv4 : SocketInfo::ipv6;
  std::ranges::copy(address, info.localAddress.end() - address.size());
}

bool givesNoRow(const SocketInfo& info) {
  return info.kind == SocketInfo::Kind::tcp && info.tcpState != SocketInfo::TCPState::listening;
}

/// "0100007F:1F90": 32-bit words of the address as the machine holds them, the port in host order.
bool readLocalAddress(std::string_view text, SocketInfo& info) {
  constexpr std::size_t digits = 8;
  const std::size_t colon = text.find(':');
  if (colon != digits && colon != 4 * digits) return false;
  std::array<std::uint8_t, 16> address{};
  for (std::size_t i = 0; i < colon / digits; ++i) {
    auto word = parseNumber<std::uint32_t>(text.substr(i * digits, digits), 16);
    if (!word) return false;
    std::memcpy(address.data() + i * sizeof *word, &*word, sizeof *word);
  }
  auto port = parseNumber<std::uint16_t>(text.substr(colon + 1), 16);
  if (!port) return false;
  info.localPort = htons(*port);
  setAddress(info, {address.data(), colon / 2});
  return true;
}

/// The columns of a line: number, local address, remote address, state, two queues in one, timer,
/// retransmissions, user, timeout, inode.
void addSocketOfLine(std::string_view line, std::int32_t protocol, SocketsByInode& sockets) {
  takeWord(line);
  const std::string_view local = takeWord(line);
  takeWord(line);
  auto state = parseNumber<std::uint16_t>(takeWord(line), 16);
  for (int column = 0; column < 5; ++column) takeWord(line);
  auto inode = parseNumber<std::uint32_t>(takeWord(line));
  if (!state || inode.value_or(0) == 0) return;
  SocketInfo info = makeSocketInfo(protocol, static_cast<std::uint8_t>(*state));
  if (!givesNoRow(info) && readLocalAddress(local, info)) sockets.try_emplace(*inode, info);
}

/// What follows the header of the last message of a dump: 0, or the negative errno value that ended
/// it. A kernel without the handler of one protocol answers so, and with no socket.
bool isFailure(std::span<const std::byte> body) {
  std::int32_t error = 0;
  if (body.size() < sizeof error) return false;
  std::memcpy(&error, body.data(), sizeof error);
  return error < 0;
}

void addSocketOfMessage(std::span<const std::byte> body, std::int32_t protocol,
                        SocketsByInode& sockets) {
  inet_diag_msg message{};
  if (body.size() < sizeof message) return;
  std::memcpy(&message, body.data(), sizeof message);
  // A socket that no process holds anymore has no inode.
  if (message.idiag_inode == 0) return;
  SocketInfo info = makeSocketInfo(protocol, message.idiag_state);
  if (givesNoRow(info)) return;
  info.localPort = message.id.idiag_sport;
  std::array<std::uint8_t, 16> address{};
  std::memcpy(address.data(), message.id.idiag_src, address.size());
  setAddress(info, {address.data(), message.idiag_family == AF_INET ? 4U : 16U});
  sockets.try_emplace(message.idiag_inode, info);
}

}  // namespace

void addSocketsOfText(std::string_view text, std::int32_t protocol, SocketsByInode& sockets) {
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    addSocketOfLine(line, protocol, sockets);
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
}

DumpState addSocketsOfDump(std::span<const std::byte> datagram, std::int32_t protocol,
                           SocketsByInode& sockets) {
  bool interrupted = false;
  while (datagram.size() >= sizeof(nlmsghdr)) {
    nlmsghdr header{};
    std::memcpy(&header, datagram.data(), sizeof header);
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size()) break;
    interrupted |= (header.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    if (header.nlmsg_type == NLMSG_ERROR) return DumpState::refused;
    const auto body = datagram.subspan(sizeof header, header.nlmsg_len - sizeof header);
    if (header.nlmsg_type == NLMSG_DONE) {
      if (isFailure(body)) return DumpState::refused;
      return interrupted ? DumpState::interrupted : DumpState::complete;
    }
    addSocketOfMessage(body, protocol, sockets);
    const std::size_t aligned = NLMSG_ALIGN(header.nlmsg_len);
    datagram = datagram.subspan(std::min(aligned, datagram.size()));
  }
  return DumpState::more;
}

}  // namespace tessaloom
