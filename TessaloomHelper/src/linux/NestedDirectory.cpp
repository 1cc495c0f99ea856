#include "NestedDirectory.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

#include <cerrno>

namespace tessaloom {

FileDescriptor openNestedDirectory(int parent, const char* name) {
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  const open_how how{.flags = flags, .mode = 0, .resolve = RESOLVE_NO_XDEV | RESOLVE_NO_SYMLINKS};
  const auto opened = ::syscall(SYS_openat2, parent, name, &how, sizeof how);
  if (opened >= 0) return FileDescriptor(static_cast<int>(opened));
  // Linux before 5.6 does not have the call, and a sandbox may forbid it.
  if (errno != ENOSYS && errno != EPERM) return {};
  return FileDescriptor(::openat(parent, name, flags));
}

// Only root can make a file immutable.
bool allowRemoval(int, const char*) {
  return false;
}

}  // namespace tessaloom
