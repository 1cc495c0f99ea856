#include "linux/ResourceLimits.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

namespace tessaloom {

namespace {

/// What listings of most users' processes keep open.
constexpr rlim_t roomFromTheStart = 4096;

/// Makes the table of descriptors this long. The kernel lengthens it by doubling, and for a process
/// with several threads waits each time until no processor uses the old one: some milliseconds,
/// several times in a first listing.
void makeRoom(rlim_t descriptors) {
  ::close(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, static_cast<int>(descriptors) - 1));
}

}  // namespace

ResourceLimits ResourceLimits::current() {
  ResourceLimits limits;
  rlimit read{};
  if (::getrlimit(RLIMIT_NOFILE, &read) == 0) limits.descriptors_ = read;
  return limits;
}

void ResourceLimits::raise() const {
  if (!descriptors_) return;
  // RLIM_INFINITY is the largest value.
  const rlim_t soft =
      std::min(std::max(descriptors_->rlim_cur, wantedDescriptors), descriptors_->rlim_max);
  const rlimit raised{.rlim_cur = soft, .rlim_max = descriptors_->rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &raised);
  makeRoom(std::min(raised.rlim_cur, roomFromTheStart));
}

}  // namespace tessaloom
