// A process that does what its parent asks, one request at a time, over the socket that is its
// standard input. It ends when its parent closes the other end.

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <thread>

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

std::int32_t takeTerminal(const char* path) {
  if (setsid() < 0) return -1;
  int terminal = open(path, O_RDWR | O_CLOEXEC);
  return terminal < 0 ? -1 : ioctl(terminal, TIOCSCTTY, 0);
}

std::int32_t obey(const Request& request, int received, char** arguments) {
  switch (request.command) {
    case Command::keep:
      return received;
    case Command::show:
      return 0;
    case Command::close:
      return close(request.first);
    case Command::duplicate:
      return dup(request.first);
    case Command::duplicateOnto:
      return dup2(request.first, request.second);
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
    case Command::forkTwin:
      return forkCopy(false);
    case Command::forkHeir:
      return forkCopy(true);
    case Command::forkZombie: {
      pid_t zombie = fork();
      if (zombie == 0) _exit(0);
      return zombie;
    }
    case Command::execAgain:
      execv("/proc/self/exe", arguments);
      return -1;
  }
  return -1;
}

}  // namespace

int main(int /*count*/, char** arguments) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  signal(SIGCHLD, SIG_DFL);
  // Whoever executed this program waits for an answer.
  if (!sendMessage(channel, Reply{.result = 0}, -1)) return 1;
  Request request{};
  int received = -1;
  while (receiveMessage(channel, request, received)) {
    const Reply reply{.result = obey(request, received, arguments)};
    const int shown = request.command == Command::show ? request.first : -1;
    if (!sendMessage(channel, reply, shown)) return 1;
  }
  return 0;
}
