#include "OpenCalls.h"

namespace tessaloom {

std::shared_ptr<void> OpenCalls::open() {
  {
    const MutexLock locked(lock_);
    ++open_;
  }
  // Should there be no memory for it, the deleter runs at once.
  return {this, [](OpenCalls* calls) { calls->close(); }};
}

bool OpenCalls::areSettled(Clock::duration grace) const {
  const MutexLock locked(lock_);
  return open_ == 0 && (!lastClosed_ || Clock::now() - *lastClosed_ >= grace);
}

void OpenCalls::close() {
  const MutexLock locked(lock_);
  --open_;
  lastClosed_ = Clock::now();
}

}  // namespace tessaloom
