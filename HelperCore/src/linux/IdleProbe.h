#pragma once

#include <chrono>
#include <cstdint>

#include "TLFoundation/FileDescriptor.h"
#include "linux/ProcFiles.h"
#include "linux/ProcParser.h"

namespace tessaloom {

/// Finds out whether a process with a single thread has run since a moment, by the counters of its
/// schedstat, which stays open.
///
/// The kernel counts a time slice before the process runs in it, and adds to its run time when it
/// stops and at every tick. Equal counters therefore mean that it has not run, or has run all the
/// while without a tick; the latter is ruled out once the moment is longer ago than the longest
/// time between two ticks.
class IdleProbe {
 public:
  using Clock = std::chrono::steady_clock;

  /// Well above the longest time that a CPU of this machine runs a process without a tick: that is
  /// a hundredth of a second, or a second where the kernel runs CPUs without ticks (nohz_full).
  static std::chrono::nanoseconds longestTick();

  /// An empty probe.
  IdleProbe() = default;

  /// From now on. An empty probe where there is no such file or the kernel does not count.
  IdleProbe(const ProcFiles& proc, std::int32_t pid);

  explicit operator bool() const { return bool(schedstat_); }
  int descriptor() const { return schedstat_.get(); }

  /// The process has not been reaped, and its counters are what they were.
  bool isUnchanged() const;

  /// How long before `now` the moment lies.
  Clock::duration age(Clock::time_point now) const { return now - since_; }

  /// Takes this moment as the one to compare with. False when the process has gone.
  bool restart();

 private:
  FileDescriptor schedstat_;
  RunCounters counters_;
  Clock::time_point since_;
};

}  // namespace tessaloom
