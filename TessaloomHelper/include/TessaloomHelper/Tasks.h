#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace tessaloom {

enum class QualityOfService : std::uint8_t { userInitiated, utility };

/// Work on other threads: Dispatch's global queues on macOS, a pool of threads on Linux.
///
/// Tasks may block; a blocked task never keeps another from starting, up to the bound that the
/// platform sets. A task must not throw. Safe from any thread.
class Tasks {
 public:
  virtual ~Tasks() = default;

  /// Starts the task as soon as a thread is free.
  virtual void runConcurrently(QualityOfService quality, std::function<void()> task) = 0;

  /// The same, not before `delay` has passed on the steady clock.
  virtual void runAfter(std::chrono::milliseconds delay, QualityOfService quality,
                        std::function<void()> task) = 0;
};

}  // namespace tessaloom
