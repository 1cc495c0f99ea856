#include "ChildLaunch.h"

#include <signal.h>
#include <spawn.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "SpawnPlatform.h"

namespace tessaloom {

namespace {

/// The first error of a sequence of calls that return one; 0 while all went well.
class FirstError {
 public:
  void add(int error) {
    if (first_ == 0) first_ = error;
  }
  int value() const { return first_; }

 private:
  int first_ = 0;
};

class SpawnFileActions {
 public:
  SpawnFileActions() : error_(::posix_spawn_file_actions_init(&actions_)) {}
  ~SpawnFileActions() {
    if (error_ == 0) ::posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnFileActions(const SpawnFileActions&) = delete;
  SpawnFileActions& operator=(const SpawnFileActions&) = delete;

  int error() const { return error_; }
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
  int error_;
};

class SpawnAttributes {
 public:
  SpawnAttributes() : error_(::posix_spawnattr_init(&attributes_)) {}
  ~SpawnAttributes() {
    if (error_ == 0) ::posix_spawnattr_destroy(&attributes_);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;

  int error() const { return error_; }
  posix_spawnattr_t* get() { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
  int error_;
};

/// A process group of the child's own, an empty signal mask, default dispositions, and `more`.
int describeChild(posix_spawnattr_t* attributes, short more) {
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);  // Macros on macOS, so without a scope.
  sigfillset(&all);
  const int flags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | more;
  FirstError error;
  error.add(::posix_spawnattr_setpgroup(attributes, 0));
  error.add(::posix_spawnattr_setsigmask(attributes, &none));
  error.add(::posix_spawnattr_setsigdefault(attributes, &all));
  error.add(::posix_spawnattr_setflags(attributes, static_cast<short>(flags)));
  return error.value();
}

/// The strings as exec takes them; valid while `strings` is.
std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  result.reserve(strings.size() + 1);
  for (std::string& string : strings) result.push_back(string.data());
  result.push_back(nullptr);
  return result;
}

std::vector<std::string> argumentVector(const CLIInvocation& invocation) {
  std::vector<std::string> result{invocation.executable.string()};
  result.insert(result.end(), invocation.arguments.begin(), invocation.arguments.end());
  return result;
}

std::vector<std::string> environmentVector(const Environment& environment) {
  std::vector<std::string> result;
  result.reserve(environment.size());
  for (const auto& [name, value] : environment) {
    result.emplace_back(name).append("=").append(value);
  }
  return result;
}

}  // namespace

std::expected<pid_t, int> launchChild(const CLIInvocation& invocation, const ChildEnds& ends) {
  SpawnFileActions actions;
  SpawnAttributes attributes;
  FirstError error;
  error.add(actions.error());
  error.add(attributes.error());
  if (error.value() != 0) return std::unexpected(error.value());

  error.add(::posix_spawn_file_actions_adddup2(actions.get(), ends.input, STDIN_FILENO));
  error.add(::posix_spawn_file_actions_adddup2(actions.get(), ends.output, STDOUT_FILENO));
  error.add(::posix_spawn_file_actions_adddup2(actions.get(), ends.error, STDERR_FILENO));
  if (invocation.workingDirectory) {
    error.add(::posix_spawn_file_actions_addchdir_np(actions.get(),
                                                     invocation.workingDirectory->c_str()));
  }
  short platformFlags = 0;
  error.add(SpawnPlatform::inheritStandardDescriptorsOnly(*actions.get(), platformFlags));
  error.add(describeChild(attributes.get(), platformFlags));
  if (error.value() != 0) return std::unexpected(error.value());

  auto arguments = argumentVector(invocation);
  auto environment = environmentVector(invocation.environment);
  pid_t pid = 0;
  error.add(::posix_spawn(&pid, invocation.executable.c_str(), actions.get(), attributes.get(),
                          pointers(arguments).data(), pointers(environment).data()));
  if (error.value() != 0) return std::unexpected(error.value());
  return pid;
}

}  // namespace tessaloom
