#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "HelperCore/FileDescriptor.h"
#include "support/ObedientProtocol.h"

namespace tessaloom {

/// A child process that does what a test asks; killed and reaped with this object. Every call
/// returns once the child has done it, with what the system call returned there.
class ObedientChild {
 public:
  using Command = obedient::Command;

  ObedientChild() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error("socketpair failed");
    }
    channel_ = FileDescriptor{ends[0]};
    FileDescriptor childEnd{ends[1]};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, childEnd.get(), obedient::channel);
    char name[] = "obedient";
    char* arguments[] = {name, nullptr};
    int error = posix_spawn(&pid_, OBEDIENT_PROCESS, &actions, nullptr, arguments, nullptr);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::runtime_error("posix_spawn failed");
    childEnd.reset();
    receive();
  }
  ObedientChild(ObedientChild&& other) noexcept
      : pid_(std::exchange(other.pid_, -1)), channel_(std::move(other.channel_)) {}
  ObedientChild& operator=(ObedientChild&& other) noexcept {
    std::swap(pid_, other.pid_);
    std::swap(channel_, other.channel_);
    return *this;
  }
  ~ObedientChild() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }

  pid_t pid() const { return pid_; }

  std::int32_t ask(Command command, std::int32_t first = 0, std::int32_t second = 0) {
    return exchange({.command = command, .first = first, .second = second}, -1);
  }
  std::int32_t ask(Command command, std::string_view text) {
    obedient::Request request{.command = command};
    std::ranges::copy(text.substr(0, sizeof request.text - 1), request.text);
    return exchange(request, -1);
  }

  /// Gives the child a descriptor of its own of what `descriptor` refers to; tells its number.
  std::int32_t give(const FileDescriptor& descriptor) {
    return exchange({.command = Command::keep}, descriptor.get());
  }
  /// Takes a descriptor away from the child.
  FileDescriptor take(std::int32_t number) {
    if (!obedient::sendMessage(
            channel_.get(), obedient::Request{.command = Command::giveUp, .first = number}, -1)) {
      throw std::runtime_error("the obedient process is gone");
    }
    receive();
    return std::move(received_);
  }

 private:
  std::int32_t exchange(const obedient::Request& request, int descriptor) {
    if (!obedient::sendMessage(channel_.get(), request, descriptor)) {
      throw std::runtime_error("the obedient process is gone");
    }
    return receive();
  }
  std::int32_t receive() {
    obedient::Reply reply{};
    int descriptor = -1;
    if (!obedient::receiveMessage(channel_.get(), reply, descriptor)) {
      throw std::runtime_error("the obedient process did not answer");
    }
    received_ = FileDescriptor{descriptor};
    return reply.result;
  }

  pid_t pid_ = -1;
  FileDescriptor channel_;
  FileDescriptor received_;
};

}  // namespace tessaloom
