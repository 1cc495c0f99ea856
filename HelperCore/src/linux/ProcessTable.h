#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "HelperCore/Kernel.h"
#include "TLFoundation/FileDescriptor.h"
#include "linux/OneUser.h"
#include "linux/RestWitness.h"
#include "linux/StartClock.h"

namespace tessaloom::linux_kernel {

/// Reads the process table of one user out of /proc.
///
/// A start time has the resolution of a clock tick, so a pid that is reused within a tick would
/// leave two processes with one identity. No listing shows such a process: one that started in the
/// tick that still runs is read again once that tick is over, and whoever has the pid then differs
/// in its start from everyone who can get the pid later.
///
/// Between listings the files of known processes stay open, because opening costs more than
/// reading. An open file names its process and no other, however pids are reused. Resident sizes
/// are read again each time; the rest is, too, unless the process is of one thread and provably did
/// nothing since (RestWitness). Two things happen to a process without its doing: it loses its
/// terminal, so that with one it is always read, and its parent ends, so that it is read unless
/// that is known to be alive.
///
/// Safe from any thread; a listing that finds the open files in use does without them.
class ProcessTable {
 public:
  /// `procDirectory` and `clock` outlive this object. `settled`: the age at which a witness counts.
  ProcessTable(const FileDescriptor& procDirectory, const StartClock& clock,
               std::chrono::nanoseconds settled = RestWitness::longestTick)
      : procDirectory_(procDirectory), clock_(clock), settled_(settled) {}

  struct Listing {
    std::vector<ProcessRecord> records;  ///< By pid; empty when /proc cannot be read.
    bool ranOutOfDescriptors = false;    ///< Some may be missing for that reason alone.
  };

  /// The processes whose effective user is `owner`. With `keepFiles` false nothing stays open
  /// beyond what is already.
  Listing read(std::uint32_t owner, bool keepFiles);

  /// Closes what stayed open, unless a listing uses it at this moment.
  void closeKeptFiles();

 private:
  struct Row {
    ProcessRecord record;
    std::uint64_t startTicks;
    bool isAlive;  ///< Not a zombie, so that its children are still its own.
    bool hasOneThread;
  };
  /// What is kept of one process; the files were opened in this order.
  struct OpenFiles {
    FileDescriptor stat;
    FileDescriptor statm;
    RestWitness witness;     ///< Comes with the second listing.
    std::optional<Row> row;  ///< From after the witness; absent when no witness can vouch for it.
    std::uint64_t parentStartTicks = 0;  ///< Of the row's parent, then.
  };
  struct KeptProcess {
    std::int32_t pid;
    OpenFiles files;
  };
  class Pass;

  const FileDescriptor& procDirectory_;
  const StartClock& clock_;
  const std::chrono::nanoseconds settled_;
  OneUser<std::vector<KeptProcess>> kept_;  ///< By pid.
};

}  // namespace tessaloom::linux_kernel
