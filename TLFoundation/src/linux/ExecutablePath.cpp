#include "TLFoundation/linux/ExecutablePath.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <string>
#include <string_view>

namespace tessaloom {

namespace {

constexpr std::string_view deletedMark = " (deleted)";

/// The mark may also be part of a file's name; then the path leads to the executable itself.
bool isItsName(const FileDescriptor& processDirectory, const std::string& path) {
  struct stat named{};
  struct stat running{};
  return ::lstat(path.c_str(), &named) == 0 &&
         ::fstatat(processDirectory.get(), "exe", &running, 0) == 0 &&
         named.st_dev == running.st_dev && named.st_ino == running.st_ino;
}

std::expected<std::filesystem::path, int> executablePathOf(const std::string& directory) {
  const FileDescriptor opened(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!opened) return std::unexpected(errno);
  return executablePath(opened);
}

}  // namespace

std::expected<std::filesystem::path, int> executablePath(const FileDescriptor& processDirectory) {
  std::string path(PATH_MAX, '\0');
  const auto length = ::readlinkat(processDirectory.get(), "exe", path.data(), path.size());
  if (length < 0) return std::unexpected(errno);
  if (length == 0) return std::unexpected(ENOENT);
  if (static_cast<std::size_t>(length) == path.size()) return std::unexpected(ENAMETOOLONG);
  path.resize(static_cast<std::size_t>(length));
  if (path.ends_with(deletedMark) && !isItsName(processDirectory, path)) {
    path.resize(path.size() - deletedMark.size());
  }
  return path;
}

std::expected<std::filesystem::path, int> executablePath(pid_t process) {
  return executablePathOf("/proc/" + std::to_string(process));
}

std::expected<std::filesystem::path, int> ownExecutablePath() {
  return executablePathOf("/proc/self");
}

}  // namespace tessaloom
