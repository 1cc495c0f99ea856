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
            calls->lastAnswer_ = Clock::now();
            if (Method::runsEngine(kind)) calls->lastEngineAnswer_ = calls->lastAnswer_;
          }};
}

bool OpenCalls::areSettled(Clock::duration grace) const {
  const MutexLock locked(lock_);
  return open_.empty() && isOver(lastAnswer_, grace);
}

bool OpenCalls::engineCallsAreSettled(Clock::duration grace) const {
  const MutexLock locked(lock_);
  return std::ranges::none_of(std::views::keys(open_), Method::runsEngine) &&
         isOver(lastEngineAnswer_, grace);
}

bool OpenCalls::isOver(const std::optional<Clock::time_point>& answer, Clock::duration grace) {
  return !answer || Clock::now() - *answer >= grace;
}

}  // namespace tessaloom
