// A process that does what its parent asks, one request at a time, over the socket that is its
// standard input. It ends when its parent closes the other end.

#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <thread>
#include <vector>

#include "ObedientProtocol.h"

namespace {

using namespace tessaloom::obedient;

void waitForever() {
  for (;;) pause();
}

/// A copy of this process that holds the same descriptors, until its parent ends or for a minute.
std::int32_t forkCopy(bool outlivesParent) {
  pid_t copy = fork();
  if (copy != 0) return copy;
  outlivesParent ? void(alarm(60)) : void(prctl(PR_SET_PDEATHSIG, SIGKILL));
  close(channel);
  waitForever();
  return 0;
}

/// A process that shares this one's table of descriptors; ends with it, or after a minute.
std::int32_t forkSharing(std::int32_t closed) {
  sigset_t wanted;
  sigemptyset(&wanted);
  sigaddset(&wanted, SIGUSR1);
  sigprocmask(SIG_BLOCK, &wanted, nullptr);
  const long copy = syscall(SYS_clone, CLONE_FILES | SIGCHLD, nullptr, nullptr, nullptr, 0L);
  if (copy != 0) return static_cast<std::int32_t>(copy);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  sigwaitinfo(&wanted, nullptr);
  close(closed);
  waitForever();
  return 0;
}

std::int32_t openListener() {
  const int made = socket(AF_INET, SOCK_STREAM, 0);
  return listen(made, 1) == 0 ? made : -1;
}

/// Opens sockets that stay, and then as many that come at once and go one by one, without end.
std::int32_t churnSockets(std::int32_t count) {
  const auto open = [count](std::int32_t firstPort) {
    std::vector<int> sockets;
    for (std::int32_t port = firstPort; port < firstPort + count; ++port) {
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_port = htons(static_cast<std::uint16_t>(port));
      sockets.push_back(socket(AF_INET, SOCK_DGRAM, 0));
      bind(sockets.back(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    return sockets;
  };
  open(10'000);
  std::thread{[open] {
    for (;;) {
      for (const int each : open(20'000)) {
        close(each);
        usleep(20);
      }
    }
  }}.detach();
  return 0;
}

std::int32_t startThreadApart() {
  std::promise<std::int32_t> port;
  std::thread{[&port] {
    unshare(CLONE_FILES);
    unshare(CLONE_NEWNET);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(openListener(), reinterpret_cast<sockaddr*>(&address), &length);
    port.set_value(ntohs(address.sin_port));
    waitForever();
  }}.detach();
  return port.get_future().get();
}

void serve();

std::int32_t takeTerminal(const char* path) {
  signal(SIGHUP, SIG_IGN);  // It outlives the terminal.
  if (setsid() < 0) return -1;
  int terminal = open(path, O_RDWR | O_CLOEXEC);
  return terminal < 0 ? -1 : ioctl(terminal, TIOCSCTTY, 0);
}

std::int32_t obey(const Request& request, int received) {
  switch (request.command) {
    case Command::keep:
      return received;
    case Command::close:
      return close(request.first);
    case Command::setName:
      return prctl(PR_SET_NAME, request.text);
    case Command::hideFromOthers:
      return prctl(PR_SET_DUMPABLE, 0);
    case Command::becomeUser:
      return setuid(static_cast<uid_t>(request.first));
    case Command::takeTerminal:
      return takeTerminal(request.text);
    case Command::startThread:
      std::thread{waitForever}.detach();
      return 0;
    case Command::leaveMainThread:
      std::thread{serve}.detach();
      pthread_exit(nullptr);
    case Command::startThreadApart:
      return startThreadApart();
    case Command::forkTwin:
      return forkCopy(false);
    case Command::forkHeir:
      return forkCopy(true);
    case Command::forkSharing:
      return forkSharing(request.first);
    case Command::enterNetwork:
      return unshare(CLONE_NEWNET) == 0 ? 0 : unshare(CLONE_NEWUSER | CLONE_NEWNET);
    case Command::churnSockets:
      return churnSockets(request.first);
    case Command::listen:
      return openListener();
    case Command::forkZombie: {
      pid_t zombie = fork();
      if (zombie == 0) _exit(0);
      siginfo_t exited{};
      waitid(P_PID, static_cast<id_t>(zombie), &exited, WEXITED | WNOWAIT);
      return zombie;
    }
  }
  return -1;
}

/// Says that it is there, and then answers requests until the other end is closed.
void serve() {
  for (std::int32_t result = 0;;) {
    write(channel, &result, sizeof result);
    Packet packet;
    if (recvmsg(channel, &packet.header, 0) != sizeof packet.request) _exit(0);
    int received = -1;
    const cmsghdr* attachment = CMSG_FIRSTHDR(&packet.header);
    if (attachment != nullptr) std::memcpy(&received, CMSG_DATA(attachment), sizeof received);
    result = obey(packet.request, received);
  }
}

}  // namespace

int main() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  signal(SIGCHLD, SIG_DFL);
  serve();
}
