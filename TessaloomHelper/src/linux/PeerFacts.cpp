#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string>

#include "TLFoundation/FileDescriptor.h"
#include "TLFoundation/linux/ExecutablePath.h"
#include "linux/PeerRequirement.h"

// Everything is read relative to one open /proc/PID: the folder keeps naming the same process, so
// the facts cannot be pieced together from two that had the number one after the other.

namespace tessaloom {

namespace {

constexpr std::size_t flatpakInfoLimit = 65'536;

FileDescriptor openRelative(const FileDescriptor& folder, const char* path, int flags) {
  return FileDescriptor(::openat(folder.get(), path, flags | O_CLOEXEC | O_NOCTTY));
}

std::optional<bool> sharesMountNamespace(const FileDescriptor& process) {
  struct stat own{};
  struct stat theirs{};
  if (::stat("/proc/self/ns/mnt", &own) != 0) return std::nullopt;
  if (::fstatat(process.get(), "ns/mnt", &theirs, 0) != 0) return std::nullopt;
  return own.st_dev == theirs.st_dev && own.st_ino == theirs.st_ino;
}

// Opened without reading first, so that neither a pipe blocks nor a device notices.
std::optional<std::string> flatpakInfo(const FileDescriptor& process) {
  const auto root = openRelative(process, "root", O_PATH | O_DIRECTORY);
  if (!root) return std::nullopt;
  const auto found = openRelative(root, ".flatpak-info", O_PATH | O_NOFOLLOW);
  if (!found) return errno == ENOENT ? std::optional<std::string>("") : std::nullopt;
  struct stat status{};
  if (::fstat(found.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;

  const std::string reopened = "/proc/self/fd/" + std::to_string(found.get());
  const FileDescriptor file(::open(reopened.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file) return std::nullopt;
  std::string text(flatpakInfoLimit + 1, '\0');
  std::size_t size = 0;
  while (size < text.size()) {
    const auto count = ::read(file.get(), text.data() + size, text.size() - size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    size += static_cast<std::size_t>(count);
  }
  if (size > flatpakInfoLimit) return std::nullopt;
  text.resize(size);
  return text;
}

}  // namespace

std::optional<PeerFacts> readPeerFacts(pid_t pid, uid_t user) {
  if (pid <= 0) return std::nullopt;
  const std::string folder = "/proc/" + std::to_string(pid);
  const FileDescriptor process(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!process) return std::nullopt;
  const auto isShared = sharesMountNamespace(process);
  if (!isShared) return std::nullopt;

  PeerFacts facts{
      .user = user, .sharesMountNamespace = *isShared, .executable = {}, .flatpakInfo = {}};
  if (*isShared) {
    auto path = executablePath(process);
    if (!path) return std::nullopt;
    facts.executable = path->string();
  } else {
    auto text = flatpakInfo(process);
    if (!text) return std::nullopt;
    facts.flatpakInfo = std::move(*text);
  }
  return facts;
}

}  // namespace tessaloom
