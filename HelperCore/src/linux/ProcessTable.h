#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "HelperCore/FileDescriptor.h"
#include "HelperCore/Kernel.h"
#include "linux/OneUser.h"
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
/// reading. An open file names its process and no other, however pids are reused. Every value is
/// read again each time. Safe from any thread; a listing that finds the open files in use does
/// without them.
class ProcessTable {
 public:
  /// Both outlive this object.
  ProcessTable(const FileDescriptor& procDirectory, const StartClock& clock)
      : procDirectory_(procDirectory), clock_(clock) {}

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
  /// The files of one process, opened in this order.
  struct OpenFiles {
    FileDescriptor stat;
    FileDescriptor statm;
  };
  struct KeptProcess {
    std::int32_t pid;
    OpenFiles files;
  };
  struct Row {
    ProcessRecord record;
    std::uint64_t startTicks;
  };
  class Pass;

  const FileDescriptor& procDirectory_;
  const StartClock& clock_;
  OneUser<std::vector<KeptProcess>> kept_;  ///< By pid.
};

}  // namespace tessaloom::linux_kernel
