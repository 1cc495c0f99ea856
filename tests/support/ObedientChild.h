#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "TLFoundation/FileDescriptor.h"
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
    pid_ = fork();
    if (pid_ == 0) {
      dup2(childEnd.get(), obedient::channel);
      execl(OBEDIENT_PROCESS, "obedient", nullptr);
      _exit(127);
    }
    childEnd.reset();
    receive();
  }
  ObedientChild(const ObedientChild&) = delete;
  ObedientChild& operator=(const ObedientChild&) = delete;
  ~ObedientChild() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }

  pid_t pid() const { return pid_; }

  std::int32_t ask(Command command, std::int32_t first = 0, std::int32_t second = 0) {
    return exchange({.command = command, .first = first, .second = second});
  }
  std::int32_t ask(Command command, std::string_view text) {
    obedient::Request request{.command = command};
    std::ranges::copy(text.substr(0, sizeof request.text - 1), request.text);
    return exchange(request);
  }

  /// Gives the child a descriptor of its own of what `descriptor` refers to; tells its number.
  std::int32_t give(const FileDescriptor& descriptor) {
    return exchange({.command = Command::keep}, descriptor.get());
  }
  /// Takes a descriptor away from the child.
  FileDescriptor take(std::int32_t number) {
    ask(Command::show, number);
    FileDescriptor taken = std::move(received_);
    ask(Command::close, number);
    return taken;
  }

 private:
  std::int32_t exchange(const obedient::Request& request, int descriptor = -1) {
    obedient::sendMessage(channel_.get(), request, descriptor);
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
