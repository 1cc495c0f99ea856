#include "HelperCore/ExecutableIdentity.h"

#include <sys/stat.h>

#include <chrono>

namespace tessaloom {
namespace {

/// POSIX names the field st_mtim, macOS st_mtimespec.
template <class Status>
timespec modificationTime(const Status& status) {
  if constexpr (requires { status.st_mtim; })
    return status.st_mtim;
  else
    return status.st_mtimespec;
}

Instant instantOf(const timespec& time) {
  const double seconds = static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  return Instant(std::chrono::duration<double>(seconds));
}

}  // namespace

std::optional<ExecutableIdentity> ExecutableIdentity::of(const std::filesystem::path& path) {
  struct stat status{};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return ExecutableIdentity{.device = static_cast<std::int32_t>(status.st_dev),
                            .inode = status.st_ino,
                            .modified = instantOf(modificationTime(status))};
}

}  // namespace tessaloom
