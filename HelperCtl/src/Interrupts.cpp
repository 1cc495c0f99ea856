#include "Interrupts.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "TLFoundation/Pipe.h"

namespace tessaloom {
namespace {

// A signal handler reaches nothing but globals: the pipe that it writes to and the main thread
// polls.
std::atomic<int> readEnd{-1};
std::atomic<int> writeEnd{-1};
static_assert(std::atomic<int>::is_always_lock_free);

void wakeUp(int) {
  const int saved = errno;
  const char byte = 0;
  // A full pipe already holds more interrupts than anybody counts.
  [[maybe_unused]] const ssize_t written = ::write(writeEnd.load(), &byte, 1);
  errno = saved;
}

void setHandler(int number, void (*handler)(int)) {
  struct sigaction action{};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  if (sigaction(number, &action, nullptr) != 0) {
    throw std::system_error(errno, std::generic_category(), "sigaction");
  }
}

}  // namespace

Interrupts::Interrupts() {
  auto pipe = makePipe(PipeMode::nonblocking);
  if (!pipe) throw std::system_error(pipe.error(), std::generic_category(), "pipe");
  readEnd = pipe->readEnd.release();
  writeEnd = pipe->writeEnd.release();
  setHandler(SIGINT, wakeUp);
  setHandler(SIGTERM, wakeUp);
}

Interrupts::~Interrupts() {
  (void)::signal(SIGINT, SIG_DFL);
  (void)::signal(SIGTERM, SIG_DFL);
  ::close(writeEnd.exchange(-1));
  ::close(readEnd.exchange(-1));
}

int Interrupts::descriptor() const {
  return readEnd;
}

int Interrupts::take() {
  std::array<char, 16> bytes{};
  const ssize_t count = ::read(readEnd, bytes.data(), bytes.size());
  return count > 0 ? static_cast<int>(count) : 0;
}

}  // namespace tessaloom
