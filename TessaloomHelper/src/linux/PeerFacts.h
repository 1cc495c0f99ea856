#pragma once

#include <sys/types.h>

#include <expected>
#include <filesystem>
#include <string>

namespace tessaloom {

/// What is known about the process at the other end of a bus connection.
struct PeerFacts {
  bool sharesMountNamespace;       ///< Whether it sees the same file system tree as the helper.
  std::string executable;          ///< If so, its path; of a deleted file, the path that it had.
  std::string flatpakApplication;  ///< If not, that of the Flatpak instance it belongs to, if any.
};

/// Reads what the system reports about a process, the cheap facts first. `runtimeDirectory` is the
/// user's (XDG Base Directories), where Flatpak describes what it runs. The errno when anything
/// cannot be read. Safe from any thread.
std::expected<PeerFacts, int> readPeerFacts(pid_t process,
                                            const std::filesystem::path& runtimeDirectory);

}  // namespace tessaloom
