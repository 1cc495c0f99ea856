#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "linux/ProcFiles.h"
#include "linux/SocketParser.h"

namespace tessaloom {

/// The listening TCP and the bound UDP sockets of network namespaces, by inode.
///
/// The kernel lists a table in pieces and may skip a socket between two of them when another one is
/// closed. A table that came in several pieces is therefore read until two readings one after the
/// other find the same; no two sockets share an inode, so what was found once stays valid.
class SocketTable {
 public:
  static constexpr std::size_t tableCount = 4;  ///< TCP and UDP, each over IPv4 and IPv6.
  /// Which tables of a namespace have been read.
  using Progress = std::array<bool, tableCount>;

  /// Adds the sockets of the namespace that this process is in: by sock_diag(7), and table by table
  /// from /proc/net where that is not available (a kernel without it or without one of its
  /// handlers, a sandbox that forbids it).
  void addOwnNamespace(const ProcFiles& proc);

  /// Adds the sockets of the namespace of a process or thread, from its /proc/PID/net, for those
  /// tables that have not been read yet and that may be read.
  void addFrom(const ProcFiles& proc, std::int32_t member, Progress& progress);

  /// Null when there is none that gives a row.
  const SocketInfo* find(std::uint32_t inode) const {
    const auto found = sockets_.find(inode);
    return found == sockets_.end() ? nullptr : &found->second;
  }

 private:
  SocketsByInode sockets_;
};

}  // namespace tessaloom
