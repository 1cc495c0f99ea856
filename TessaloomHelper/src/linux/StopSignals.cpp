#include "linux/StopSignals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>
#include <system_error>

namespace tessaloom {

namespace {

bool isIgnored(int signal) {
  struct sigaction action{};
  return ::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

sigset_t stopSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT}) {
    if (!isIgnored(signal)) ::sigaddset(&signals, signal);
  }
  for (const int signal : {SIGTERM, SIGUSR1, SIGUSR2, SIGALRM, SIGVTALRM, SIGPROF, SIGPOLL, SIGPWR,
                           SIGSTKFLT, SIGXCPU}) {
    ::sigaddset(&signals, signal);
  }
  for (int signal = SIGRTMIN; signal <= SIGRTMAX; ++signal) ::sigaddset(&signals, signal);
  return signals;
}

}  // namespace

StopSignals::StopSignals() {
  static_cast<void>(::signal(SIGPIPE, SIG_IGN));
  static_cast<void>(::signal(SIGXFSZ, SIG_IGN));
  static_cast<void>(::signal(SIGCHLD, SIG_DFL));
  const sigset_t signals = stopSignals();
  ::pthread_sigmask(SIG_SETMASK, &signals, nullptr);
  descriptor_ = FileDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!descriptor_) throw std::system_error(errno, std::generic_category(), "signalfd");
}

std::optional<int> StopSignals::next() const {
  signalfd_siginfo signal{};
  if (::read(descriptor_.get(), &signal, sizeof signal) != sizeof signal) return std::nullopt;
  return static_cast<int>(signal.ssi_signo);
}

}  // namespace tessaloom
