#include "Log.h"

#include <poll.h>
#include <unistd.h>

#include <string>

#include "TLFoundation/DisplayString.h"
#include "TLFoundation/Mutex.h"

namespace tessaloom {

void logLine(std::string_view text, std::string_view cause) {
  constexpr std::int64_t limit = 500;  // Unicode scalars.
  // The cause is cleaned on its own, so that the limit applies to each of the two.
  const std::string end = cause.empty() ? "" : ": " + DisplayString::singleLine(cause, limit);
  const std::string line = "helper: " + DisplayString::singleLine(text, limit) + end + '\n';
  static Mutex lock;  // What one thread finds free, another one must not take.
  const MutexLock locked(lock);
  pollfd standardError{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
  if (::poll(&standardError, 1, 0) == 0) return;
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

int reportEnd(int signal) {
  logLine("ended by signal " + std::to_string(signal));
  return 128 + signal;
}

}  // namespace tessaloom
