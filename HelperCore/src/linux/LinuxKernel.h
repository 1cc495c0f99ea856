#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "HelperCore/Kernel.h"
#include "TLFoundation/FileDescriptor.h"
#include "linux/BootClock.h"
#include "linux/Exclusive.h"
#include "linux/IdleProbe.h"
#include "linux/KnownProcess.h"
#include "linux/ProcessScan.h"

namespace tessaloom {

/// Linux, through /proc, pidfds and sock_diag.
///
/// What listings know of processes is kept between them, with the descriptors that this takes, once
/// for both kinds. A listing that finds it in use by another one does without it.
class LinuxKernel final : public Kernel {
 public:
  /// `idleAge`: the age from which on a process's IdleProbe counts.
  explicit LinuxKernel(std::chrono::nanoseconds idleAge = IdleProbe::longestTick());

  std::uint32_t userID() const override;
  Instant wallClockTime() const override;
  Instant processClockTime() const override;
  std::vector<ProcessRecord> fetchAllProcessRecords(std::uint32_t owner) override;
  std::vector<SocketHolder> fetchSocketHolders(std::uint32_t owner) override;
  std::unique_ptr<ProcessHandle> openProcess(std::int32_t pid) override;
  void releaseKeptDescriptors() override;

 private:
  template <class Row>
  std::vector<Row> list(std::uint32_t owner, std::vector<Row> (*read)(ProcessScan&));

  const FileDescriptor procDirectory_;
  const BootClock clock_;
  const std::chrono::nanoseconds idleAge_;
  Exclusive<std::vector<KnownProcess>> known_;  ///< By pid.
};

}  // namespace tessaloom
