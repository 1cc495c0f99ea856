#include "NestedDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

namespace tessaloom {

namespace {

/// Opens what `parent` holds itself, not what is mounted there.
FileDescriptor openNested(int parent, const char* name, int flags) {
  struct stat outer{};
  struct stat nested{};
  if (::fstat(parent, &outer) != 0 || ::fstatat(parent, name, &nested, AT_SYMLINK_NOFOLLOW) != 0) {
    return {};
  }
  if (nested.st_dev != outer.st_dev) {
    errno = EXDEV;
    return {};
  }
  return FileDescriptor(::openat(parent, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | flags));
}

}  // namespace

FileDescriptor openNestedDirectory(int parent, const char* name) {
  return openNested(parent, name, O_DIRECTORY);
}

bool allowRemoval(int parent, const char* name) {
  const FileDescriptor file = openNested(parent, name, O_NONBLOCK);
  return file && ::fchflags(file.get(), 0) == 0;
}

}  // namespace tessaloom
