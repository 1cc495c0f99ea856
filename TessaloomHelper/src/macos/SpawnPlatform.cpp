#include "SpawnPlatform.h"

#include <fcntl.h>
#include <sys/event.h>

namespace tessaloom::SpawnPlatform {

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
