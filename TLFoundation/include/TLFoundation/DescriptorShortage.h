#pragma once

#include <cerrno>
#include <functional>

namespace tessaloom {

/// Whether an errno value says that this process, or the system, has too many open files.
constexpr bool isDescriptorShortage(int error) {
  return error == EMFILE || error == ENFILE;
}

/// Whether an errno value says only that this process, or the system, lacks descriptors or memory.
constexpr bool isShortage(int error) {
  return isDescriptorShortage(error) || error == ENOMEM;
}

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
