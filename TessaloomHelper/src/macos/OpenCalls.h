#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>

#include "HelperProtocol/Methods.h"
#include "TLFoundation/Mutex.h"

namespace tessaloom {

/// Counts the calls that were received and whose replies are not yet sent, so that the process does
/// not exit before. Safe from any thread; outlives every call.
class OpenCalls {
 public:
  /// A call is open for as long as a copy of what this returns exists.
  std::shared_ptr<void> open(Method::Kind kind) TL_EXCLUDES(lock_);

  /// Whether the process may exit now: no call is open; or none that runs an engine, and brief
  /// calls have left no pause for `limit`, since this function first found no engine's call open.
  bool isPause(std::chrono::seconds limit) TL_EXCLUDES(lock_);

 private:
  Mutex lock_;
  std::map<Method::Kind, std::size_t> open_ TL_GUARDED_BY(lock_);  ///< None is 0.
  std::optional<std::chrono::steady_clock::time_point> pauseAwaited_ TL_GUARDED_BY(lock_);
};

}  // namespace tessaloom
