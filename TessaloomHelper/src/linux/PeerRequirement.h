#pragma once

#include <sys/types.h>

#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace tessaloom {

/// What is known about the process at the other end of a bus connection.
struct PeerFacts {
  uid_t user;                 ///< Effective user id, as the bus authenticated it.
  bool sharesMountNamespace;  ///< Whether it sees the same file system tree as the helper.
  std::string executable;     ///< Its absolute path; of a deleted file, the path that it had.
  std::string flatpakInfo;    ///< Text of the .flatpak-info at its root; empty without one.
};

/// Who may call the helper: processes of the same user that are either the editor as a Flatpak
/// application, or one of the executables installed beside the helper.
///
/// This is weaker than code signing: it is meant against other sandboxes and against accidents, and
/// a program of the same user outside any sandbox can pass itself off as an admitted one. Pure;
/// safe from any thread.
class PeerRequirement {
 public:
  static constexpr std::string_view flatpakApplication = "com.brindlemoor.Tessaloom";
  static constexpr std::array<std::string_view, 2> neighbours{"tessaloom", "tessaloom-helperctl"};

  /// `helperExecutable` is the helper's own path as the kernel tells it; when that is empty,
  /// nothing stands beside it.
  PeerRequirement(uid_t user, const std::filesystem::path& helperExecutable);

  bool admits(const PeerFacts& peer) const;

 private:
  bool isNeighbour(std::string_view executable) const;

  uid_t user_;
  std::string directory_;
};

/// The value of `name` in the group [Application] of a key file; nothing when it is not there
/// exactly once, because two readers might then disagree about which one counts.
std::optional<std::string> flatpakApplicationName(std::string_view keyFile);

/// Reads what /proc tells about a process; nothing when any of it cannot be read, which is a
/// refusal. Opens no file that could block or act on being opened, but the process's own file
/// system may still be slow: not for the bus's thread. Safe from any thread.
std::optional<PeerFacts> readPeerFacts(pid_t pid, uid_t user);

}  // namespace tessaloom
