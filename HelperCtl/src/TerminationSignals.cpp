#include "TerminationSignals.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "TLFoundation/Pipe.h"

namespace tessaloom {
namespace {

/// A signal handler can access only globals: the pipe that it writes to and the main thread polls.
std::atomic<int> readEnd{-1};
std::atomic<int> writeEnd{-1};
static_assert(std::atomic<int>::is_always_lock_free);

constexpr std::array caughtSignals{SIGINT, SIGTERM, SIGHUP, SIGQUIT};

void wakeUp(int number) {
  const int saved = errno;
  const char byte = static_cast<char>(number);
  // A full pipe already contains more signals than are ever counted.
  [[maybe_unused]] const ssize_t written = ::write(writeEnd.load(), &byte, 1);
  errno = saved;
}

/// Exchanges one way to handle a signal for another.
void exchangeHandler(int number, void (*from)(int), void (*to)(int)) {
  struct sigaction action{};
  if (::sigaction(number, nullptr, &action) != 0 || action.sa_handler != from) return;
  action = {};
  action.sa_handler = to;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  ::sigaction(number, &action, nullptr);
}

}  // namespace

TerminationSignals::TerminationSignals() {
  auto pipe = makePipe(PipeMode::nonblocking);
  if (!pipe) throw std::system_error(pipe.error(), std::generic_category(), "pipe");
  readEnd = pipe->readEnd.release();
  writeEnd = pipe->writeEnd.release();
  for (const int number : caughtSignals) exchangeHandler(number, SIG_DFL, wakeUp);
}

TerminationSignals::~TerminationSignals() {
  (void)stop();
  ::close(writeEnd.exchange(-1));
  ::close(readEnd.exchange(-1));
}

int TerminationSignals::descriptor() const {
  return readEnd;
}

std::optional<int> TerminationSignals::stop() {
  for (const int number : caughtSignals) exchangeHandler(number, wakeUp, SIG_DFL);
  return next();
}

std::optional<int> TerminationSignals::next() {
  char byte = 0;
  return ::read(readEnd, &byte, 1) == 1 ? std::optional<int>(byte) : std::nullopt;
}

void dieBySignal(int number) {
  (void)::signal(number, SIG_DFL);
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, number);
  ::pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
  (void)::raise(number);
  ::_exit(128 + number);
}

}  // namespace tessaloom
