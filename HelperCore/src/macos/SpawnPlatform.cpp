#include "HelperCore/SpawnPlatform.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/event.h>
#include <unistd.h>

namespace tessaloom::SpawnPlatform {

namespace {

/// Owns what one of the two descriptions of a child needs, and keeps the first error of the calls
/// that make it.
template <class Object, int (*Initialize)(Object*), int (*Destroy)(Object*)>
class SpawnObject {
 public:
  SpawnObject() : initialized_(Initialize(&object_)), error_(initialized_) {}
  ~SpawnObject() {
    if (initialized_ == 0) Destroy(&object_);
  }
  SpawnObject(const SpawnObject&) = delete;
  SpawnObject& operator=(const SpawnObject&) = delete;

  /// Calls `add` with the object and `arguments`; does nothing after an error.
  template <class... Parameters, class... Arguments>
  void apply(int (*add)(Object*, Parameters...), Arguments... arguments) {
    if (error_ == 0) error_ = add(&object_, arguments...);
  }

  int error() const { return error_; }
  const Object* get() const { return &object_; }

 private:
  Object object_{};
  int initialized_;
  int error_;
};

using FileActions = SpawnObject<posix_spawn_file_actions_t, ::posix_spawn_file_actions_init,
                                ::posix_spawn_file_actions_destroy>;
using Attributes =
    SpawnObject<posix_spawnattr_t, ::posix_spawnattr_init, ::posix_spawnattr_destroy>;

}  // namespace

std::expected<pid_t, int> spawn(const Program& program, const ChildEnds& ends) {
  FileActions actions;
  actions.apply(::posix_spawn_file_actions_adddup2, ends.input, STDIN_FILENO);
  actions.apply(::posix_spawn_file_actions_adddup2, ends.output, STDOUT_FILENO);
  actions.apply(::posix_spawn_file_actions_adddup2, ends.error, STDERR_FILENO);
  if (program.workingDirectory != nullptr) {
    actions.apply(::posix_spawn_file_actions_addchdir_np, program.workingDirectory);
  }
  if (actions.error() != 0) return std::unexpected(actions.error());

  sigset_t none;
  sigset_t all;
  sigemptyset(&none);  // Macros, so without a scope.
  sigfillset(&all);
  constexpr int flags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                        POSIX_SPAWN_CLOEXEC_DEFAULT;
  Attributes attributes;
  attributes.apply(::posix_spawnattr_setpgroup, 0);
  attributes.apply(::posix_spawnattr_setsigmask, &none);
  attributes.apply(::posix_spawnattr_setsigdefault, &all);
  attributes.apply(::posix_spawnattr_setflags, static_cast<short>(flags));
  if (attributes.error() != 0) return std::unexpected(attributes.error());

  pid_t pid = 0;
  const int error = ::posix_spawn(&pid, program.executable, actions.get(), attributes.get(),
                                  program.arguments, program.environment);
  if (error != 0) return std::unexpected(error);
  return pid;
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
