// Makes processes that hold descriptors and listening sockets, for the benchmarks and for
// script/compare-with-system.
//
//   process-load PROCESSES DESCRIPTORS SOCKETS [CHURN]
//
// DESCRIPTORS is for each process, SOCKETS for all of them together; CHURN processes more come and
// go the whole time, each with a listening socket for some hundredths of a second. Writes "ready"
// when all is there. Everything ends with standard input, or after ten minutes.

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace {

constexpr int longestMilliseconds = 600'000;

/// Every fourth over IPv6, every third UDP.
bool holdSocket(int number) {
  const bool udp = number % 3 == 2;
  const int family = number % 4 == 3 ? AF_INET6 : AF_INET;
  const int made = socket(family, (udp ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, 0);
  sockaddr_in6 address{};  // The wildcard of either family, and a port of the kernel's choice.
  address.sin6_family = static_cast<sa_family_t>(family);
  const socklen_t length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  return bind(made, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
         (udp || listen(made, 8) == 0);
}

void holdDescriptor(int number) {
  switch (number % 3) {
    case 0:
      open("/dev/null", O_RDONLY | O_CLOEXEC);
      return;
    case 1:
      eventfd(0, EFD_CLOEXEC);
      return;
    default:
      socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  }
}

/// Ends with the process that made it, which must not have ended yet.
bool endWithParent(pid_t parent) {
  return prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == parent;
}

[[noreturn]] void comeAndGo(pid_t parent) {
  if (!endWithParent(parent)) _exit(1);
  for (int number = 0;; ++number) {
    const pid_t own = getpid();
    const pid_t brief = fork();
    if (brief < 0) {
      usleep(10'000);
      continue;
    }
    if (brief == 0) {
      if (!endWithParent(own)) _exit(1);
      holdSocket(number);
      usleep(static_cast<useconds_t>(10'000 + number % 7 * 10'000));
      _exit(0);
    }
    waitpid(brief, nullptr, 0);
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 4) return 2;
  const int processes = atoi(arguments[1]);
  const int descriptors = atoi(arguments[2]);
  const int sockets = atoi(arguments[3]);
  const int churn = count > 4 ? atoi(arguments[4]) : 0;
  signal(SIGCHLD, SIG_IGN);
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) return 1;
  const pid_t own = getpid();
  for (int i = 0; i < processes; ++i) {
    const pid_t child = fork();
    if (child < 0) {
      perror("process-load: fork");
      return 1;
    }
    if (child != 0) continue;
    if (!endWithParent(own)) _exit(1);
    for (int number = 0; number < descriptors; ++number) holdDescriptor(number);
    bool held = true;
    for (int number = i; number < sockets; number += processes) held &= holdSocket(number);
    if (!held || write(ready[1], "", 1) != 1) _exit(1);
    close(ready[0]);
    close(ready[1]);
    for (;;) pause();
  }
  close(ready[1]);
  for (int i = 0; i < processes; ++i) {
    char byte = 0;
    if (read(ready[0], &byte, 1) != 1) {
      std::fputs("process-load: a process could not hold what it should\n", stderr);
      return 1;
    }
  }
  for (int i = 0; i < churn; ++i) {
    const pid_t child = fork();
    if (child < 0) {
      perror("process-load: fork");
      return 1;
    }
    if (child != 0) continue;
    signal(SIGCHLD, SIG_DFL);
    comeAndGo(own);
  }
  std::puts("ready");
  std::fflush(stdout);
  pollfd input{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
  poll(&input, 1, longestMilliseconds);
  return 0;
}
