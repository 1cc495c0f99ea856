#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "linux/ProcFiles.h"

namespace tessaloom {

/// The sockets that the descriptors of a process refer to, of whatever kind.
struct SocketDescriptors {
  std::vector<std::uint32_t> inodes;   ///< In the order of the descriptors.
  std::uint32_t networkNamespace = 0;  ///< Of the process itself; 0 when it may not be known.
};

/// A thread in another network namespace than its process.
struct NamespaceMember {
  std::uint32_t networkNamespace;
  std::int32_t thread;
};

/// Reads the links in /proc/PID/fd, which is the expensive part of listing ports: one system call
/// for each open file. A process that may not be examined is reported without sockets.
SocketDescriptors readSocketDescriptors(const ProcFiles& proc, std::int32_t pid);

/// The same of this process, by its descriptors themselves, which is several times as fast. `kept`,
/// by number, are known not to be sockets.
SocketDescriptors readOwnSocketDescriptors(const ProcFiles& proc, const std::vector<bool>& kept);

/// Adds the sockets in tables of descriptors that threads of the process have to themselves, and
/// returns the threads that are in network namespaces of their own. Where the kernel does not
/// compare tables, threads are read only as long as no socket has been found.
std::vector<NamespaceMember> addSocketsOfThreads(const ProcFiles& proc, std::int32_t pid,
                                                 SocketDescriptors& sockets);

/// Whether two processes or threads share one table of descriptors. nullopt where the kernel does
/// not say (kcmp(2)).
std::optional<bool> shareDescriptors(std::int32_t first, std::int32_t second);

}  // namespace tessaloom
