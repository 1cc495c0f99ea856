#include "linux/ResourceLimits.h"

#include <algorithm>

namespace tessaloom {

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
}

}  // namespace tessaloom
