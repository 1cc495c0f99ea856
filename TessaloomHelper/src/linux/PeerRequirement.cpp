#include "linux/PeerRequirement.h"

#include <algorithm>

namespace tessaloom {

namespace {

std::string_view withoutBlanks(std::string_view text) {
  constexpr std::string_view blanks = " \t\r";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace

PeerRequirement::PeerRequirement(uid_t user, const std::filesystem::path& helperExecutable)
    : user_(user), directory_(helperExecutable.parent_path()) {
  if (!directory_.empty() && !directory_.ends_with('/')) directory_ += '/';
}

bool PeerRequirement::admits(const PeerFacts& peer) const {
  if (peer.user != user_) return false;
  if (peer.sharesMountNamespace) return isNeighbour(peer.executable);
  return flatpakApplicationName(peer.flatpakInfo) == flatpakApplication;
}

bool PeerRequirement::isNeighbour(std::string_view executable) const {
  if (directory_.empty() || !executable.starts_with(directory_)) return false;
  executable.remove_prefix(directory_.size());
  return std::ranges::find(neighbours, executable) != neighbours.end();
}

std::optional<std::string> flatpakApplicationName(std::string_view keyFile) {
  std::optional<std::string> name;
  bool inApplication = false;
  while (!keyFile.empty()) {
    const auto lineEnd = std::min(keyFile.find('\n'), keyFile.size());
    const auto line = withoutBlanks(keyFile.substr(0, lineEnd));
    keyFile.remove_prefix(std::min(lineEnd + 1, keyFile.size()));

    if (line.starts_with('[')) {
      inApplication = line == "[Application]";
      continue;
    }
    const auto equals = line.find('=');
    if (!inApplication || line.starts_with('#') || equals == std::string_view::npos) continue;
    if (withoutBlanks(line.substr(0, equals)) != "name") continue;
    if (name) return std::nullopt;
    name = withoutBlanks(line.substr(equals + 1));
  }
  return name;
}

}  // namespace tessaloom
