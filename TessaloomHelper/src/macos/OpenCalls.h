#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>

#include "HelperProtocol/Methods.h"
#include "TLFoundation/Mutex.h"

namespace tessaloom {

/// Counts the calls that were received and not yet answered, so that the process does not exit
/// before it has answered them. Safe from any thread; outlives every call.
class OpenCalls {
 public:
  using Clock = std::chrono::steady_clock;

  /// A call is open for as long as a copy of what this returns exists.
  std::shared_ptr<void> open(Method::Kind kind) TL_EXCLUDES(lock_);

  /// Whether no call is open and the last one was answered at least `grace` ago. XPC sends a reply
  /// after the reply block has returned, so the process must outlive its last reply.
  bool areSettled(Clock::duration grace) const TL_EXCLUDES(lock_);

  /// Whether the process may exit now: all calls are settled; or those that run an engine are, and
  /// brief calls have left no pause for `limit`, counted from when the last engine call was settled
  /// or from the first call of this function that found none unsettled, whichever is later.
  bool isPause(Clock::duration grace, Clock::duration limit) TL_EXCLUDES(lock_);

 private:
  mutable Mutex lock_;
  std::map<Method::Kind, std::size_t> open_ TL_GUARDED_BY(lock_);  ///< None is 0.
  Clock::time_point lastAnswer_ TL_GUARDED_BY(lock_);
  Clock::time_point lastEngineAnswer_ TL_GUARDED_BY(lock_);
  std::optional<Clock::time_point> firstLook_ TL_GUARDED_BY(lock_);
};

}  // namespace tessaloom
