#include "SpawnPlatform.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace tessaloom::SpawnPlatform {

namespace {

constexpr int firstOther = STDERR_FILENO + 1;

/// 0, or why the descriptor could not be moved.
int moveAboveStandard(FileDescriptor& descriptor) {
  if (descriptor.get() >= firstOther) return 0;
  const int moved = ::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, firstOther);
  if (moved < 0) return errno;
  descriptor = FileDescriptor(moved);
  return 0;
}

}  // namespace

std::expected<Pipe, int> makePipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return std::unexpected(errno);
  Pipe pipe{FileDescriptor(ends[0]), FileDescriptor(ends[1])};
  for (FileDescriptor* end : {&pipe.readEnd, &pipe.writeEnd}) {
    if (const int error = moveAboveStandard(*end); error != 0) return std::unexpected(error);
  }
  return pipe;
}

int inheritStandardDescriptorsOnly(posix_spawn_file_actions_t& actions, short& /*spawnFlags*/) {
  // Everything of the helper's own is close-on-exec; this is for what it was itself started with.
  return ::posix_spawn_file_actions_addclosefrom_np(&actions, firstOther);
}

FileDescriptor exitDescriptor(pid_t child) {
  // glibc 2.36 is the first with a wrapper; the call itself is there since Linux 5.3. The
  // descriptor is close-on-exec by definition.
  return FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, child, 0U)));
}

}  // namespace tessaloom::SpawnPlatform
