#pragma once

#include <sys/types.h>

#include <array>
#include <filesystem>
#include <string>
#include <string_view>

#include "linux/PeerFacts.h"

namespace tessaloom {

/// Who may call the helper: processes of the same user that are either the editor as a Flatpak
/// application, or one of the executables installed beside the helper.
///
/// This is weaker than code signing: it is meant against other sandboxes and against accidents, and
/// a program of the same user outside any sandbox can impersonate an admitted one. Pure; safe from
/// any thread.
class PeerRequirement {
 public:
  static constexpr std::string_view flatpakEditor = "com.brindlemoor.Tessaloom";
  static constexpr std::array<std::string_view, 2> neighbors{"tessaloom", "tessaloom-helperctl"};

  /// `helperExecutable` is the helper's own path as the kernel reports it; when that is empty, no
  /// program counts as installed beside it.
  PeerRequirement(uid_t user, const std::filesystem::path& helperExecutable);

  /// The effective user id that a peer has to have, whatever else is true of it.
  uid_t user() const { return user_; }

  /// Whether a process of that user may call.
  bool admits(const PeerFacts& peer) const;

 private:
  bool isNeighbor(std::string_view executable) const;

  uid_t user_;
  std::string directory_;
};

}  // namespace tessaloom
