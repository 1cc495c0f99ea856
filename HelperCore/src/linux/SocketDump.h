#pragma once

#include <cstdint>

#include "TLFoundation/FileDescriptor.h"
#include "linux/SocketText.h"

namespace tessaloom::linux_kernel {

struct DumpedSockets {
  SocketsByInode byInode;
  bool ranOutOfDescriptors = false;  ///< Some may be missing for that reason alone.
};

/// The sockets of the network namespace that the helper is in: by sock_diag(7), and table by table
/// from /proc/net where that is not to be had (a kernel without it, a sandbox that forbids it).
DumpedSockets dumpSockets(const FileDescriptor& procDirectory);

/// Adds the sockets of the network namespace of a process, from its /proc/PID/net. False when none
/// of it can be read, because the process is gone or may not be looked at.
bool addSocketsOfProcess(const FileDescriptor& procDirectory, std::int32_t pid,
                         DumpedSockets& sockets);

}  // namespace tessaloom::linux_kernel
