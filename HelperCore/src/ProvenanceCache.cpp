#include "HelperCore/ProvenanceCache.h"

#include <utility>

namespace tessaloom {

void ProvenanceCache::record(std::span<const ProcessIdentity> identities, Instant now) {
  const MutexLock lock(lock_);
  std::unordered_map<std::int32_t, ProcessStartTime> fresh;
  fresh.reserve(identities.size());
  for (const ProcessIdentity& identity : identities) {
    fresh.try_emplace(identity.pid, ProcessStartTime{identity.startSec, identity.startUSec});
  }
  listed_ = std::move(fresh);
  listedAt_ = now;
}

bool ProvenanceCache::isAuthorized(std::int32_t pid, std::int64_t startSec, std::int32_t startUSec,
                                   Instant now) const {
  const MutexLock lock(lock_);
  if (!listedAt_) return false;
  const Seconds age = now - *listedAt_;
  if (age < Seconds::zero() || age > ttl_) return false;
  auto found = listed_.find(pid);
  return found != listed_.end() && found->second == ProcessStartTime{startSec, startUSec};
}

}  // namespace tessaloom
