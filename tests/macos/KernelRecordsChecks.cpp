// The decoding of the kernel's records, run by the compiler on the platform's own structures: a
// wrong field does not compile, on whichever machine this is built.

#include "KernelRecords.h"

namespace tessaloom {
namespace {

constexpr kinfo_proc process(std::string_view name) {
  kinfo_proc record{};
  record.kp_proc.p_pid = 42;
  record.kp_proc.p_starttime = {.tv_sec = 1'700'000'000, .tv_usec = 999'999};
  record.kp_eproc.e_ppid = 7;
  record.kp_eproc.e_pcred.p_ruid = 500;
  record.kp_eproc.e_ucred.cr_uid = 501;
  std::ranges::copy(name, record.kp_proc.p_comm);
  return record;
}

static_assert([] {
  ProcessRecord decoded = decodeProcess(process("zsh"));
  return decoded.pid == 42 && decoded.parentPID == 7 && decoded.owner == 501 &&
         decoded.start == ProcessStartTime{1'700'000'000, 999'999} && decoded.terminal.empty() &&
         decoded.residentBytes == 0 && decoded.name == "zsh";
}());
static_assert(decodeProcess(process("seventeen letters")).name == "seventeen letters");
static_assert(decodeProcess(process("")).name.empty());

constexpr std::optional<dev_t> terminal(dev_t device) {
  kinfo_proc record{};
  record.kp_eproc.e_tdev = device;
  return decodeTerminal(record);
}
static_assert(!terminal(-1) && terminal(0) == 0 && terminal(0x10000001) == 0x10000001);

constexpr in_sockinfo internetSocket(std::uint8_t versionFlags) {
  in_sockinfo socket{};
  socket.insi_lport = 0x901F;  // 8080 in network order, as a little-endian machine reads it.
  socket.insi_fport = 0x0100;
  socket.insi_vflag = versionFlags;
  if ((versionFlags & INI_IPV4) != 0) {
    socket.insi_laddr.ina_46.i46a_addr4.s_addr = 0x0100007F;
  } else {
    socket.insi_laddr.ina_6 = {
        .__u6_addr = {.__u6_addr8 = {0xFE, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}};
  }
  return socket;
}

constexpr SocketInfo tcp(int state, std::uint8_t versionFlags) {
  socket_fdinfo record{};
  record.psi.soi_kind = SOCKINFO_TCP;
  record.psi.soi_protocol = 6;
  record.psi.soi_proto.pri_tcp = {};
  record.psi.soi_proto.pri_tcp.tcpsi_ini = internetSocket(versionFlags);
  record.psi.soi_proto.pri_tcp.tcpsi_state = state;
  return decodeSocket(record);
}

static_assert(tcp(TSI_S_LISTEN, INI_IPV4) ==
              SocketInfo{.kind = SocketInfo::Kind::tcp,
                         .protocol = 6,
                         .tcpState = SocketInfo::TCPState::listening,
                         .localPort = 0x901F,
                         .versionFlags = SocketInfo::ipv4,
                         .localAddress = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 127, 0, 0, 1}});
static_assert(tcp(TSI_S_ESTABLISHED, INI_IPV4).tcpState == SocketInfo::TCPState::other);
static_assert(tcp(TSI_S_LISTEN, INI_IPV4 | INI_IPV6).localAddress[12] == 127);

constexpr SocketInfo other(int kind) {
  socket_fdinfo record{};
  record.psi.soi_kind = kind;
  record.psi.soi_protocol = 17;
  record.psi.soi_proto.pri_in = internetSocket(INI_IPV6);
  return decodeSocket(record);
}

static_assert(other(SOCKINFO_IN) ==
              SocketInfo{.kind = SocketInfo::Kind::internet,
                         .protocol = 17,
                         .localPort = 0x901F,
                         .versionFlags = SocketInfo::ipv6,
                         .localAddress = {0xFE, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}});
static_assert(other(SOCKINFO_UN) == SocketInfo{.protocol = 17});

}  // namespace
}  // namespace tessaloom
