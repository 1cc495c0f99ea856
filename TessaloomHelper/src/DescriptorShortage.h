#pragma once

#include <functional>

#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

/// Makes an attempt, which returns an expected value or an errno value. If it fails because this
/// process or the system has too many open files, it is made once more after `release`, which
/// closes descriptors that are open only for speed.
template <class Attempt>
auto withDescriptors(const std::function<void()>& release, Attempt attempt) {
  auto result = attempt();
  if (result || !isDescriptorShortage(result.error())) return result;
  release();
  return attempt();
}

}  // namespace tessaloom
