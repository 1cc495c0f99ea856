#pragma once

// What is read of Darwin's records, at Darwin's offsets; see KernelLayout.h.

#include <stdint.h>

#define PROC_UID_ONLY 4
#define PROC_PIDLISTFDS 1
#define PROC_PIDTASKINFO 4
#define PROC_PIDFDSOCKETINFO 3
#define PROX_FDTYPE_VNODE 1u
#define PROX_FDTYPE_SOCKET 2u
#define INI_IPV4 1
#define INI_IPV6 2
#define TSI_S_LISTEN 1
#define TSI_S_ESTABLISHED 4
enum { SOCKINFO_GENERIC = 0, SOCKINFO_IN = 1, SOCKINFO_TCP = 2, SOCKINFO_UN = 3 };

struct proc_taskinfo {
  uint64_t pti_virtual_size, pti_resident_size;
  uint8_t others[80];
};
struct proc_fdinfo {
  int32_t proc_fd;
  uint32_t proc_fdtype;
};
struct darwin_in_addr {
  uint32_t s_addr;
};
struct darwin_in6_addr {
  union {
    uint8_t __u6_addr8[16];
  } __u6_addr;
};
struct in4in6_addr {
  uint32_t i46a_pad32[3];
  darwin_in_addr i46a_addr4;
};
struct in_sockinfo {
  int insi_fport, insi_lport;
  uint64_t insi_gencnt;
  uint32_t insi_flags, insi_flow;
  uint8_t insi_vflag, insi_ip_ttl;
  uint32_t rfu_1;
  union {
    in4in6_addr ina_46;
    darwin_in6_addr ina_6;
  } insi_faddr, insi_laddr;
  uint8_t others[16];
};
struct tcp_sockinfo {
  in_sockinfo tcpsi_ini;
  int tcpsi_state;
  uint8_t others[36];
};
struct socket_info {
  uint8_t others[156];
  int soi_protocol;
  uint8_t more[72];
  int soi_kind;
  uint32_t rfu_1;
  union {
    in_sockinfo pri_in;
    tcp_sockinfo pri_tcp;
    uint8_t room[528];
  } soi_proto;
};
struct socket_fdinfo {
  uint8_t pfi[24];
  socket_info psi;
};
