#pragma once

#include <libproc.h>
#include <sys/proc_info.h>
#include <sys/sysctl.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>

#include "HelperCore/Kernel.h"
#include "KernelLayout.h"

namespace tessaloom {

// The kernel's own records, read into the ones that the process logic uses. Pure functions.

static_assert(INI_IPV4 == SocketInfo::ipv4 && INI_IPV6 == SocketInfo::ipv6);

constexpr ProcessStartTime decodeStartTime(const kinfo_proc& record) {
  const timeval& start = record.kp_proc.p_starttime;
  return {.startSec = start.tv_sec, .startUSec = start.tv_usec};
}

/// What the table's record alone gives: all but the terminal's name and the resident size.
constexpr ProcessRecord decodeProcess(const kinfo_proc& record) {
  std::string_view name(std::begin(record.kp_proc.p_comm), std::end(record.kp_proc.p_comm));
  return {.pid = record.kp_proc.p_pid,
          .parentPID = record.kp_eproc.e_ppid,
          .owner = record.kp_eproc.e_ucred.cr_uid,
          .start = decodeStartTime(record),
          .terminal = {},
          .name = std::string(name.substr(0, name.find('\0')))};
}

/// The device number of the controlling terminal; nullopt if there is none.
constexpr std::optional<dev_t> decodeTerminal(const kinfo_proc& record) {
  constexpr dev_t noDevice = -1;
  if (record.kp_eproc.e_tdev == noDevice) return std::nullopt;
  return record.kp_eproc.e_tdev;
}

inline SocketInfo decodeSocket(const socket_fdinfo& record) {
  const socket_info& socket = record.psi;
  SocketInfo info{.protocol = socket.soi_protocol};
  const in_sockinfo* internet = nullptr;
  if (socket.soi_kind == SOCKINFO_TCP) {
    info.kind = SocketInfo::Kind::tcp;
    internet = &socket.soi_proto.pri_tcp.tcpsi_ini;
    if (socket.soi_proto.pri_tcp.tcpsi_state == TSI_S_LISTEN)
      info.tcpState = SocketInfo::TCPState::listening;
  } else if (socket.soi_kind == SOCKINFO_IN) {
    info.kind = SocketInfo::Kind::internet;
    internet = &socket.soi_proto.pri_in;
  } else {
    return info;
  }
  info.localPort = static_cast<std::uint32_t>(internet->insi_lport);
  info.versionFlags = internet->insi_vflag;
  // Of either version: an IPv4 address is the last 4 bytes here, too.
  std::memcpy(info.localAddress.data(), &internet->insi_laddr, info.localAddress.size());
  return info;
}

}  // namespace tessaloom
