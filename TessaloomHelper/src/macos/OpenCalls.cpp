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
  return open_.empty() && Clock::now() >= lastAnswer_ + grace;
}

bool OpenCalls::isPause(Clock::duration grace, Clock::duration limit) {
  const MutexLock locked(lock_);
  const auto now = Clock::now();
  const auto engineGrace = lastEngineAnswer_ + grace;
  if (std::ranges::any_of(std::views::keys(open_), Method::runsEngine) || now < engineGrace) {
    return false;
  }
  if (!firstLook_) firstLook_ = now;
  return (open_.empty() && now >= lastAnswer_ + grace) ||
         now >= std::max(*firstLook_, engineGrace) + limit;
}

}  // namespace tessaloom
