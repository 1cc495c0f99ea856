#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "TLFoundation/FileDescriptor.h"
#include "linux/OneUser.h"
#include "linux/RestWitness.h"

namespace tessaloom::linux_kernel {

/// The sockets that one process holds, of whatever kind.
struct HeldSockets {
  struct Descriptor {
    std::int32_t number;
    std::uint64_t inode;
  };

  std::int32_t pid = 0;
  std::vector<Descriptor> descriptors;  ///< In the kernel's order.
  std::string name;                     ///< Empty when unknown, or without descriptors.
  std::uint64_t networkNamespace = 0;   ///< An inode of nsfs; 0 likewise.
};

/// Finds out which processes of a user hold which sockets, from the links in /proc/PID/fd. That is
/// the dear part of a port listing: a call of the kernel for each open file of each process.
///
/// What it found stays known, and is found again without looking, for a process of one thread that
/// provably did nothing since (RestWitness): descriptors, name and namespace of a process change by
/// its own doing alone.
///
/// Safe from any thread; a listing that finds the knowledge in use does without it.
class SocketHolders {
 public:
  /// Beyond this many sockets, processes are not remembered.
  static constexpr std::size_t mostSocketsKnown = 100'000;

  /// `procDirectory` outlives this object. `settled`: the age at which knowledge counts.
  explicit SocketHolders(const FileDescriptor& procDirectory,
                         std::chrono::nanoseconds settled = RestWitness::longestTick)
      : procDirectory_(procDirectory), settled_(settled) {}

  struct Listing {
    /// All processes of the user, by pid; empty when /proc cannot be read.
    std::vector<std::shared_ptr<const HeldSockets>> holders;
    bool ranOutOfDescriptors = false;  ///< Some may be missing for that reason alone.
  };

  /// The processes whose effective user is `owner`. With `remember` false nothing is used of what
  /// is known, and nothing is added.
  Listing read(std::uint32_t owner, bool remember);

  /// Forgets everything, unless a listing uses it at this moment.
  void forget();

 private:
  struct KnownProcess {
    RestWitness witness;   ///< From before `held` was read; comes with the second listing.
    bool vouches = false;  ///< The witness may be asked: there was one thread.
    std::shared_ptr<const HeldSockets> held;

    std::int32_t pid() const { return held->pid; }
  };
  class Pass;

  const FileDescriptor& procDirectory_;
  const std::chrono::nanoseconds settled_;
  OneUser<std::vector<KnownProcess>> known_;  ///< By pid.
};

}  // namespace tessaloom::linux_kernel
