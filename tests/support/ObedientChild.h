#pragma once

#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string_view>

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
    socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends);
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
  ~ObedientChild() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }

  pid_t pid() const { return pid_; }

  std::int32_t ask(Command command, std::int32_t first = 0) {
    return exchange({.command = command, .first = first});
  }
  std::int32_t ask(Command command, std::string_view text) {
    obedient::Request request{.command = command};
    std::ranges::copy(text.substr(0, sizeof request.text - 1), request.text);
    return exchange(request);
  }

  /// Gives the child a descriptor of its own of what `descriptor` refers to; returns its number.
  std::int32_t give(const FileDescriptor& descriptor) {
    return exchange({.command = Command::keep}, descriptor.get());
  }
  /// Takes a descriptor away from the child; none if that has made itself inaccessible.
  FileDescriptor take(std::int32_t number) {
    const FileDescriptor process{static_cast<int>(syscall(SYS_pidfd_open, pid_, 0))};
    FileDescriptor taken{static_cast<int>(syscall(SYS_pidfd_getfd, process.get(), number, 0))};
    ask(Command::close, number);
    return taken;
  }

 private:
  std::int32_t exchange(const obedient::Request& request, int descriptor = -1) {
    obedient::Packet packet{request};
    cmsghdr* attachment = CMSG_FIRSTHDR(&packet.header);
    attachment->cmsg_level = SOL_SOCKET;
    attachment->cmsg_type = SCM_RIGHTS;
    attachment->cmsg_len = CMSG_LEN(sizeof descriptor);
    std::memcpy(CMSG_DATA(attachment), &descriptor, sizeof descriptor);
    if (descriptor < 0) packet.header.msg_controllen = 0;
    sendmsg(channel_.get(), &packet.header, MSG_NOSIGNAL);
    return receive();
  }
  std::int32_t receive() {
    std::int32_t result = 0;
    if (read(channel_.get(), &result, sizeof result) != sizeof result) {
      throw std::runtime_error("the obedient process did not answer");
    }
    return result;
  }

  pid_t pid_ = -1;
  FileDescriptor channel_;
};

}  // namespace tessaloom
