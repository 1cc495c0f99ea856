#pragma once

#include <atomic>
#include <cstddef>

namespace tessaloom::linux_kernel {

/// Counts the descriptors that one kind of listing keeps open for the next, so that the rest of the
/// helper always finds some. Safe from any thread.
class DescriptorBudget {
 public:
  /// A listing may keep this share of what the process may have open (RLIMIT_NOFILE), and never
  /// more than `most`.
  static constexpr std::size_t share = 4;
  static constexpr std::size_t most = 8192;

  /// `kept` are open already.
  explicit DescriptorBudget(std::size_t kept);

  /// Whether `count` more may be kept; then they count.
  bool take(std::size_t count);

 private:
  std::atomic<std::size_t> kept_;
  const std::size_t limit_;
};

/// Whether errno says that no more descriptors can be opened.
bool outOfDescriptors();

}  // namespace tessaloom::linux_kernel
