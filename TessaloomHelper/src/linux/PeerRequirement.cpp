#include "linux/PeerRequirement.h"

#include <algorithm>

namespace tessaloom {

PeerRequirement::PeerRequirement(uid_t user, const std::filesystem::path& helperExecutable)
    : user_(user), directory_(helperExecutable.parent_path()) {
  if (!directory_.empty() && !directory_.ends_with('/')) directory_ += '/';
}

bool PeerRequirement::admits(const PeerFacts& peer) const {
  return peer.sharesMountNamespace ? isNeighbor(peer.executable)
                                   : peer.flatpakApplication == flatpakEditor;
}

bool PeerRequirement::isNeighbor(std::string_view executable) const {
  if (directory_.empty() || !executable.starts_with(directory_)) return false;
  executable.remove_prefix(directory_.size());
  return std::ranges::find(neighbors, executable) != neighbors.end();
}

}  // namespace tessaloom
