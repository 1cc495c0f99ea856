#pragma once

#include <chrono>
#include <cstdint>

#include "HelperCore/Kernel.h"

namespace tessaloom {

/// Turns the kernel's start times, which are clock ticks after the boot, into points of the wall
/// clock.
///
/// The wall clock at boot is computed once, when this object is made, and rounded down to a whole
/// tick: computed again, it would differ by some microseconds, and by more after the clock was set.
/// Safe from any thread.
class BootClock {
 public:
  BootClock();

  /// The same, with a boot at `bootTime` after the epoch.
  BootClock(std::chrono::nanoseconds bootTime, std::int64_t ticksPerSecond);

  ProcessStartTime startTime(std::uint64_t ticks) const;

  /// The current time, computed as the start times are: the boot plus the clock that counts since
  /// then, whatever happened to the wall clock.
  Instant now() const;

  /// The tick that runs now. A process that starts from now on has this tick or a later one.
  std::uint64_t currentTick() const;

  /// Sleeps until `tick` has ended, but for two ticks at most; returns at once if it has.
  void sleepPast(std::uint64_t tick) const;

 private:
  std::int64_t ticksPerSecond_;
  std::int64_t bootTick_;  ///< The boot, in ticks after the epoch.
};

}  // namespace tessaloom
