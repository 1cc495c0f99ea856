#pragma once

#include <algorithm>
#include <cstddef>
#include <system_error>
#include <thread>
#include <vector>

namespace tessaloom::linux_kernel {

/// Calls `work(begin, end)` for consecutive parts of 0 to `count`, on this thread and, for long
/// lists, on a few more for the length of the call. Reading /proc is the kernel's work and scales
/// with the processors. `work` must not throw.
template <class Work>
void forEachPart(std::size_t count, const Work& work) {
  constexpr std::size_t worthAThread = 100;
  constexpr std::size_t mostThreads = 4;
  const std::size_t processors = std::max(1U, std::thread::hardware_concurrency());
  const std::size_t parts =
      std::clamp<std::size_t>(count / worthAThread, 1, std::min(processors, mostThreads));
  auto bound = [&](std::size_t part) { return count * part / parts; };

  std::vector<std::thread> helpers;
  helpers.reserve(parts);
  std::size_t taken = 1;
  try {
    for (; taken < parts; ++taken) {
      helpers.emplace_back(
          [&work, begin = bound(taken), end = bound(taken + 1)] { work(begin, end); });
    }
  } catch (const std::system_error&) {
    // No more threads to be had: the rest is done here.
    work(bound(taken), count);
  }
  work(0, bound(1));
  for (std::thread& helper : helpers) helper.join();
}

}  // namespace tessaloom::linux_kernel
