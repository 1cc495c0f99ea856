#pragma once

#include <signal.h>
#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

#include "support/TemporaryDirectory.h"

namespace tessaloom {

/// A process that the test started, ended with it.
class Child {
 public:
  /// What the program writes goes to the file `output`.
  Child(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
        const std::filesystem::path& output);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int number);
  /// The exit status, or the negative number of the signal that ended it.
  int wait();

 private:
  pid_t pid_ = -1;
};

/// A message bus with a home directory and a helper of its own, which the first call starts.
///
/// The helper is a copy beside this test program, and the program bears the editor's name: so it is
/// admitted. The practice engine stands in for both engines.
class PrivateBus {
 public:
  PrivateBus();
  ~PrivateBus();

  const std::string& address() const { return address_; }
  const std::filesystem::path& helper() const { return helper_; }
  std::filesystem::path home() const { return root_ / "home"; }
  std::filesystem::path path(const std::string& name) const { return root_ / name; }
  /// What the bus and the helpers that it started wrote to standard error.
  std::string log() const;

  /// Starts a helper that is not the bus's child.
  Child startHelper() const;
  /// What it wrote.
  std::string helperLog() const;

  void end() { bus_.signal(SIGKILL); }
  void suspend() { bus_.signal(SIGSTOP); }
  void resume() { bus_.signal(SIGCONT); }

 private:
  TemporaryDirectory root_;
  std::filesystem::path helper_;
  std::string address_;
  Child bus_;
};

std::string textOf(const std::filesystem::path& file);

}  // namespace tessaloom
