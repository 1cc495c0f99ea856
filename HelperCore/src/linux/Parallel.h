#pragma once

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <exception>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

namespace tessaloom {

/// The processors that this thread may use; at least 1.
inline std::size_t usableProcessors() {
  cpu_set_t set;
  const bool known = ::sched_getaffinity(0, sizeof set, &set) == 0;
  return known ? static_cast<std::size_t>(std::max(CPU_COUNT(&set), 1)) : 1;
}

/// Calls `work(index)` for each index below `count`, on this thread and, once that has taken half a
/// millisecond, on up to three more. `work` must be safe to call from several threads at once.
///
/// Reading /proc is the kernel's work and scales with the processors. The list is taken in small
/// parts as each thread gets to it, so that a thread that gets no processor does not delay the
/// others.
///
/// An exception from `work` ends the loop and is thrown here. If the system refuses a thread, the
/// others do the work.
template <class Work>
void parallelFor(std::size_t count, const Work& work) {
  constexpr std::size_t partSize = 16;
  constexpr std::size_t maximumThreads = 4;
  constexpr std::chrono::microseconds worthThreads{500};
  const auto started = std::chrono::steady_clock::now();

  std::atomic<std::size_t> next = 0;
  std::atomic<bool> hasFailed = false;
  std::exception_ptr failure;
  const auto takePart = [&]() noexcept {
    const std::size_t begin = next.fetch_add(partSize);
    if (begin >= count) return false;
    try {
      for (std::size_t i = begin; i < std::min(begin + partSize, count); ++i) work(i);
    } catch (...) {
      if (!hasFailed.exchange(true)) failure = std::current_exception();
      next = count;
    }
    return true;
  };

  struct Workers {
    ~Workers() {
      for (std::thread& each : threads) each.join();
    }
    std::vector<std::thread> threads;
  };
  {
    Workers workers;
    bool isAlone = true;
    while (takePart()) {
      if (!isAlone || std::chrono::steady_clock::now() - started < worthThreads) continue;
      isAlone = false;
      const std::size_t parts = (count - std::min(next.load(), count)) / partSize;
      const std::size_t threads = std::min({usableProcessors(), maximumThreads, parts});
      try {
        while (workers.threads.size() + 1 < threads) {
          workers.threads.emplace_back([&takePart] {
            while (takePart()) continue;
          });
        }
      } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): documented above
      } catch (const std::bad_alloc&) {     // NOLINT(bugprone-empty-catch)
      }
    }
  }
  if (failure) std::rethrow_exception(failure);
}

}  // namespace tessaloom
