#pragma once

#include <sys/resource.h>

#include <optional>

namespace tessaloom {

/// The limits that this process raises for itself and gives back to its children. Errors are not
/// reported: a limit that cannot be read or set stays as it is.
///
/// The listings keep descriptors of processes open, more than the 1,024 that most systems allow a
/// user's service. Children get the limits that the helper was started with, because programs that
/// use select(2) fail on descriptors beyond 1,023.
class ResourceLimits {
 public:
  /// The soft limit on descriptors that `raise` aims at.
  static constexpr rlim_t wantedDescriptors = 32'768;

  /// The limits as they are now. Make one before `raise` and before the first child.
  static ResourceLimits current();

  /// Raises the soft limit on descriptors to `wantedDescriptors`, or to the hard limit where that
  /// is lower. Never lowers it. Must be called while the process has one thread: it also makes room
  /// for descriptors, which takes longer later.
  void raise() const;

  /// What setrlimit(2) with RLIMIT_NOFILE restores; nullopt when it could not be read.
  const std::optional<rlimit>& descriptors() const { return descriptors_; }

 private:
  std::optional<rlimit> descriptors_;
};

}  // namespace tessaloom
