#include "NestedDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace tessaloom {

FileDescriptor openNestedDirectory(int parent, const char* name) {
  struct stat outer{};
  struct stat nested{};
  if (::fstat(parent, &outer) != 0 || ::fstatat(parent, name, &nested, AT_SYMLINK_NOFOLLOW) != 0) {
    return {};
  }
  if (nested.st_dev != outer.st_dev) {
    errno = EXDEV;
    return {};
  }
  return FileDescriptor(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

}  // namespace tessaloom
