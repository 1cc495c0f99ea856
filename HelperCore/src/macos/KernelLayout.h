#pragma once

// The layout of the kernel's records on arm64 and x86-64. A kernel fills them by size and offset:
// another layout would be read wrongly, so it does not compile. This holds for the system's headers
// and for the doubles that take their place when the target runs on Linux.

#include <libproc.h>
#include <sys/proc_info.h>
#include <sys/sysctl.h>

#include <cstddef>

static_assert(sizeof(timeval) == 16);
static_assert(sizeof(kinfo_proc) == 648);
static_assert(offsetof(kinfo_proc, kp_proc.p_starttime) == 0);
static_assert(offsetof(kinfo_proc, kp_proc.p_pid) == 40);
static_assert(offsetof(kinfo_proc, kp_proc.p_comm) == 243);
static_assert(sizeof(kinfo_proc::kp_proc.p_comm) == 17);
static_assert(offsetof(kinfo_proc, kp_eproc.e_pcred.p_ruid) == 392);
static_assert(offsetof(kinfo_proc, kp_eproc.e_ucred.cr_uid) == 420);
static_assert(offsetof(kinfo_proc, kp_eproc.e_ppid) == 560);
static_assert(offsetof(kinfo_proc, kp_eproc.e_tdev) == 572);

static_assert(sizeof(proc_taskinfo) == 96);
static_assert(offsetof(proc_taskinfo, pti_resident_size) == 8);
static_assert(sizeof(proc_fdinfo) == 8);
static_assert(offsetof(proc_fdinfo, proc_fd) == 0);
static_assert(offsetof(proc_fdinfo, proc_fdtype) == 4);

static_assert(sizeof(socket_fdinfo) == 792);
static_assert(offsetof(socket_fdinfo, psi) == 24);
static_assert(offsetof(socket_fdinfo, psi.soi_protocol) == 180);
static_assert(offsetof(socket_fdinfo, psi.soi_kind) == 256);
static_assert(offsetof(socket_fdinfo, psi.soi_proto.pri_in) == 264);
static_assert(offsetof(socket_fdinfo, psi.soi_proto.pri_tcp.tcpsi_ini) == 264);
static_assert(offsetof(socket_fdinfo, psi.soi_proto.pri_tcp.tcpsi_state) == 344);

static_assert(sizeof(in_sockinfo) == 80);
static_assert(offsetof(in_sockinfo, insi_lport) == 4);
static_assert(offsetof(in_sockinfo, insi_vflag) == 24);
static_assert(offsetof(in_sockinfo, insi_laddr.ina_46.i46a_addr4) == 60);
static_assert(offsetof(in_sockinfo, insi_laddr.ina_6) == 48);

static_assert(CTL_KERN == 1 && KERN_PROC == 14 && KERN_PROC_ALL == 0 && KERN_PROC_PID == 1);
static_assert(PROC_UID_ONLY == 4 && PROC_PIDLISTFDS == 1 && PROC_PIDTASKINFO == 4);
static_assert(PROC_PIDFDSOCKETINFO == 3 && PROX_FDTYPE_VNODE == 1 && PROX_FDTYPE_SOCKET == 2);
static_assert(SOCKINFO_GENERIC == 0 && SOCKINFO_IN == 1 && SOCKINFO_TCP == 2 && SOCKINFO_UN == 3);
static_assert(TSI_S_LISTEN == 1 && TSI_S_ESTABLISHED == 4 && INI_IPV4 == 1 && INI_IPV6 == 2);
