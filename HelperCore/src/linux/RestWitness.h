#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "TLFoundation/FileDescriptor.h"
#include "linux/ProcText.h"

namespace tessaloom::linux_kernel {

/// Tells whether a process with a single thread did anything since a moment, by the counters of its
/// schedstat, which stays open.
///
/// The kernel counts a time slice before the process runs in it, and settles its run time when it
/// stops and at every tick. Equal counters therefore say that it either rested all the while, or
/// ran all the while without a tick; the latter is ruled out once the moment lies further back than
/// the longest time between two ticks.
class RestWitness {
 public:
  using Clock = std::chrono::steady_clock;

  /// More than the second at most that a CPU runs a process without a tick (nohz_full).
  static constexpr std::chrono::seconds longestTick{2};

  /// A witness of nothing.
  RestWitness() = default;

  /// From this moment on. Of nothing when there is no such file, or the kernel does not count.
  RestWitness(int procDirectory, std::int32_t pid);

  /// The process that the file was opened for has not been reaped.
  bool sees() const { return read().has_value(); }

  /// The counters are what they were at the moment, so that the process at best ran on.
  bool findsNothing() const { return moment_ && read() == moment_; }

  /// Nothing found at `now` means that the process rested.
  bool isSettled(Clock::time_point now, std::chrono::nanoseconds settled) const {
    return now - since_ >= settled;
  }

  /// Takes this moment as the one from which on it tells.
  void startAgain();

  const FileDescriptor& file() const { return schedstat_; }

 private:
  std::optional<RunCounters> read() const;

  FileDescriptor schedstat_;
  std::optional<RunCounters> moment_;
  Clock::time_point since_;
};

}  // namespace tessaloom::linux_kernel
