#include "SpawnPlatform.h"

#include <fcntl.h>
#include <sys/event.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace tessaloom::SpawnPlatform {

namespace {

/// A close-on-exec duplicate above the standard descriptors; an empty one with errno set otherwise.
FileDescriptor privateDuplicate(const FileDescriptor& descriptor) {
  return FileDescriptor(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

}  // namespace

std::expected<Pipe, int> makePipe() {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) return std::unexpected(errno);
  const FileDescriptor readEnd(ends[0]);
  const FileDescriptor writeEnd(ends[1]);
  // pipe2 is missing here. Between pipe and this a spawn of another thread could copy the ends, but
  // every spawn of this process closes what it does not name.
  Pipe pipe{privateDuplicate(readEnd), FileDescriptor()};
  if (!pipe.readEnd) return std::unexpected(errno);
  pipe.writeEnd = privateDuplicate(writeEnd);
  if (!pipe.writeEnd) return std::unexpected(errno);
  return pipe;
}

int inheritStandardDescriptorsOnly(posix_spawn_file_actions_t& /*actions*/, short& spawnFlags) {
  spawnFlags = static_cast<short>(spawnFlags | POSIX_SPAWN_CLOEXEC_DEFAULT);
  return 0;
}

FileDescriptor exitDescriptor(pid_t child) {
  FileDescriptor queue(::kqueue());
  if (!queue || ::fcntl(queue.get(), F_SETFD, FD_CLOEXEC) != 0) return {};
  struct kevent exit{};
  EV_SET(&exit, static_cast<uintptr_t>(child), EVFILT_PROC, EV_ADD | EV_ONESHOT, NOTE_EXIT, 0,
         nullptr);
  // A child that is already a zombie is refused with ESRCH.
  if (::kevent(queue.get(), &exit, 1, nullptr, 0, nullptr) != 0) return {};
  return queue;
}

}  // namespace tessaloom::SpawnPlatform
