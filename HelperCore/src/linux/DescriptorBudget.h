#pragma once

#include <atomic>
#include <cstddef>

namespace tessaloom {

/// Counts the descriptors that listings keep open for the next one, so that the rest of the helper
/// always finds some. Safe from any thread.
class DescriptorBudget {
 public:
  /// What the process may have open (RLIMIT_NOFILE) less this share, and at least `reserve`, may be
  /// kept.
  static constexpr std::size_t reservedShare = 4;
  static constexpr std::size_t reserve = 256;
  /// Each takes the kernel some 5 KiB.
  static constexpr std::size_t maximumKept = 16'384;

  /// `kept` are open already.
  explicit DescriptorBudget(std::size_t kept);

  /// Whether one more may be kept; then it counts.
  bool takeOne();

 private:
  std::atomic<std::size_t> kept_;
  const std::size_t limit_;
};

}  // namespace tessaloom
