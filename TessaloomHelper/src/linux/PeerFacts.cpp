#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <string>

#include "HelperCore/FileDescriptor.h"
#include "linux/PeerRequirement.h"

// Everything is read relative to one open /proc/PID: the folder keeps naming the same process, so
// the facts cannot be pieced together from two that had the number one after the other.

namespace tessaloom {

namespace {

constexpr std::size_t flatpakInfoLimit = 65'536;

FileDescriptor openRelative(const FileDescriptor& folder, const char* path, int flags) {
  return FileDescriptor(::openat(folder.get(), path, flags | O_CLOEXEC | O_NOCTTY));
}

bool isSameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

std::optional<bool> sharesMountNamespace(const FileDescriptor& process) {
  struct stat own{};
  struct stat theirs{};
  if (::stat("/proc/self/ns/mnt", &own) != 0) return std::nullopt;
  if (::fstatat(process.get(), "ns/mnt", &theirs, 0) != 0) return std::nullopt;
  return isSameFile(own, theirs);
}

// The kernel marks the path of a file that was deleted or replaced. A file may also bear that mark
// as part of its name; then the path leads to the executable itself.
std::string withoutDeletedMark(const FileDescriptor& process, std::string path) {
  constexpr std::string_view mark = " (deleted)";
  if (!path.ends_with(mark)) return path;
  struct stat named{};
  struct stat running{};
  const bool isItsName = ::lstat(path.c_str(), &named) == 0 &&
                         ::fstatat(process.get(), "exe", &running, 0) == 0 &&
                         isSameFile(named, running);
  if (!isItsName) path.resize(path.size() - mark.size());
  return path;
}

std::optional<std::string> executable(const FileDescriptor& process) {
  std::string path(PATH_MAX, '\0');
  const auto length = ::readlinkat(process.get(), "exe", path.data(), path.size());
  if (length <= 0 || static_cast<std::size_t>(length) == path.size()) return std::nullopt;
  path.resize(static_cast<std::size_t>(length));
  return withoutDeletedMark(process, std::move(path));
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
  auto read = *isShared ? executable(process) : flatpakInfo(process);
  if (!read) return std::nullopt;
  (*isShared ? facts.executable : facts.flatpakInfo) = std::move(*read);
  return facts;
}

}  // namespace tessaloom
