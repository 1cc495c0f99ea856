#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <system_error>
#include <thread>
#include <vector>

namespace tessaloom::linux_kernel {

/// Calls `work(begin, end)` for consecutive parts of 0 to `count`, on this thread and, for long
/// lists, on a few more for the length of the call. Reading /proc is the kernel's work and scales
/// with the processors. Parts are small and taken as each thread gets to it, so that a thread that
/// gets no processor holds nobody up. `work` must not throw.
template <class Work>
void forEachPart(std::size_t count, const Work& work) {
  constexpr std::size_t partSize = 32;
  constexpr std::size_t worthAThread = 100;
  constexpr std::size_t mostThreads = 4;
  std::atomic<std::size_t> next = 0;
  const auto takeParts = [&] {
    for (;;) {
      const std::size_t begin = next.fetch_add(partSize);
      if (begin >= count) return;
      work(begin, std::min(begin + partSize, count));
    }
  };

  const std::size_t processors = std::max(1U, std::thread::hardware_concurrency());
  const std::size_t threads =
      std::clamp<std::size_t>(count / worthAThread, 1, std::min(processors, mostThreads));
  std::vector<std::thread> helpers;
  helpers.reserve(threads);
  try {
    while (helpers.size() + 1 < threads) helpers.emplace_back(takeParts);
  } catch (const std::system_error&) {
    // No more threads to be had: those that are there do it all.
    takeParts();
  }
  takeParts();
  for (std::thread& helper : helpers) helper.join();
}

}  // namespace tessaloom::linux_kernel
