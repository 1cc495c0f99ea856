#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "linux/BootClock.h"
#include "linux/DescriptorBudget.h"
#include "linux/KnownProcess.h"
#include "linux/Parallel.h"
#include "linux/ProcFiles.h"

namespace tessaloom {

/// The part that both listings share: finds the processes of a user, decides which of the earlier
/// facts about them still hold, reads the others anew, and keeps both for the next listing.
///
/// What a process is does not change while it does not run: its descriptors, name, user and network
/// namespaces change by its own doing alone. What was read of a process with a single thread
/// therefore holds as long as its IdleProbe is unchanged. Probes are opened by the second listing
/// that finds a process, so that a single listing does without their cost.
class ProcessScan {
 public:
  /// Starts with `known`, by pid, of the listing before. With `keep` false no descriptor is left
  /// open for the next. `idleAge`: from which age on a probe counts. `procDirectory` and `clock`
  /// outlive this object.
  ProcessScan(const FileDescriptor& procDirectory, const BootClock& clock, std::uint32_t owner,
              std::chrono::nanoseconds idleAge, std::vector<KnownProcess> known = {},
              bool keep = false);

  struct Entry {
    KnownProcess known;  ///< Without facts after it was read: not one of the user's processes.
    std::uint64_t residentBytes = 0;
    bool isRemembered = false;  ///< The facts are those of an earlier listing.
    bool sharesDescriptors = false;
    std::vector<NamespaceMember> namespaceMembers;
  };

  /// The processes of all users, by pid. Empty when /proc cannot be read.
  std::vector<Entry>& entries() { return entries_; }
  Entry* find(std::int32_t pid);

  /// Calls `read(entry)` for every entry, on several threads for long lists.
  template <class Read>
  void forEachEntry(const Read& read) {
    parallelFor(entries_.size(), [&](std::size_t index) { read(entries_[index]); });
  }

  /// Whether what is known holds if its probe is unchanged: between the age at which that means
  /// idle and the one at which everything is read anew as a precaution, after one to two minutes.
  bool mayBeReused(const KnownProcess& known) const {
    return known.facts && known.probe && known.probe.age(startedAt_) >= idleAge_ &&
           !isExpired(known);
  }

  /// Starts reading a process anew: opens its `stat`, and forgets what has changed. None, and
  /// nothing known, when it is not the user's.
  FileDescriptor open(KnownProcess& known);

  /// Ends reading it. `stat` is read last: as long as that succeeds the process has its pid, and
  /// what was looked up by pid since `open` was its. The facts; null, and nothing known, when it
  /// has gone.
  const ProcessFacts* readFacts(KnownProcess& known, const FileDescriptor& stat) const;

  /// Whether one more descriptor may stay open after this listing.
  bool mayKeepOne() { return keep_ && budget_.takeOne(); }

  /// Whether the process may have started after this listing began.
  bool isYoung(const ProcessFacts& facts) const { return facts.startTicks >= firstTick_; }

  const ProcFiles& proc() const { return proc_; }
  const BootClock& clock() const { return clock_; }
  std::uint32_t owner() const { return owner_; }
  bool ranOutOfDescriptors() const { return proc_.ranOutOfDescriptors(); }

  /// What the next listing starts with. Call it last.
  std::vector<KnownProcess> takeKnown();

 private:
  /// Spread over a minute by pid.
  bool isExpired(const KnownProcess& known) const {
    return known.probe.age(startedAt_) >= std::chrono::seconds{60 + known.pid % 60};
  }
  void restartProbe(KnownProcess& known);

  const ProcFiles proc_;
  const BootClock& clock_;
  const std::uint32_t owner_;
  const std::chrono::nanoseconds idleAge_;
  const bool keep_;
  const IdleProbe::Clock::time_point startedAt_;
  const std::uint64_t firstTick_;
  DescriptorBudget budget_;
  std::vector<Entry> entries_;
};

}  // namespace tessaloom
