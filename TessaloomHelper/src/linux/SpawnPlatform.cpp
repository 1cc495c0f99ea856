#include "SpawnPlatform.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace tessaloom::SpawnPlatform {

int inheritStandardDescriptorsOnly(posix_spawn_file_actions_t& actions, short& /*spawnFlags*/) {
  // Everything of the helper's own is close-on-exec; this is for what it was itself started with.
  return ::posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
}

FileDescriptor exitDescriptor(pid_t child) {
  // glibc 2.36 is the first with a wrapper; the call itself is there since Linux 5.3. The
  // descriptor is close-on-exec by definition.
  return FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, child, 0U)));
}

}  // namespace tessaloom::SpawnPlatform
