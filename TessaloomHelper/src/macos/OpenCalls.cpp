#include "OpenCalls.h"

#include <algorithm>
#include <ranges>

namespace tessaloom {

std::shared_ptr<void> OpenCalls::open(Method::Kind kind) {
  {
    const MutexLock locked(lock_);
    ++open_[kind];
  }
  // Should there be no memory for it, the deleter runs at once.
  return {this, [kind](OpenCalls* calls) {
            const MutexLock locked(calls->lock_);
            if (--calls->open_[kind] == 0) calls->open_.erase(kind);
          }};
}

bool OpenCalls::isPause(std::chrono::seconds limit) {
  const MutexLock locked(lock_);
  if (std::ranges::any_of(std::views::keys(open_), Method::runsEngine)) {
    pauseAwaited_.reset();
    return false;
  }
  const auto now = std::chrono::steady_clock::now();
  if (!pauseAwaited_) pauseAwaited_ = now;
  return open_.empty() || now >= *pauseAwaited_ + limit;
}

}  // namespace tessaloom
