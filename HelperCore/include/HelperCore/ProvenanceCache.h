#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <unordered_map>

#include "HelperCore/Kernel.h"
#include "HelperCore/ProcessIdentity.h"
#include "TLFoundation/Instant.h"
#include "TLFoundation/Mutex.h"

namespace tessaloom {

/// Remembers which processes the latest listing of one connection showed, so that only those can be
/// signaled. Safe from any thread.
class ProvenanceCache {
 public:
  using Seconds = std::chrono::duration<double>;

  /// `ttl`: for how long a listing authorizes signals to its processes.
  explicit ProvenanceCache(Seconds ttl) : ttl_(ttl) {}

  /// Replaces the previous listing. Of two identities with one pid the first is kept.
  void record(std::span<const ProcessIdentity> identities, Instant now) TL_EXCLUDES(lock_);

  /// Whether the latest listing showed this very process and is, at `now`, between 0 and `ttl` old,
  /// both included. By the wall clock: while that is set back to before the listing, nothing is
  /// authorized. The query changes nothing.
  bool isAuthorized(std::int32_t pid, std::int64_t startSec, std::int32_t startUSec,
                    Instant now) const TL_EXCLUDES(lock_);

 private:
  const Seconds ttl_;
  mutable Mutex lock_;
  std::unordered_map<std::int32_t, ProcessStartTime> listed_ TL_GUARDED_BY(lock_);
  std::optional<Instant> listedAt_ TL_GUARDED_BY(lock_);  ///< Absent before the first listing.
};

}  // namespace tessaloom
