#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "HelperCore/Kernel.h"
#include "TLFoundation/FileDescriptor.h"
#include "linux/ProcessTable.h"
#include "linux/SocketHolders.h"
#include "linux/StartClock.h"

namespace tessaloom::linux_kernel {

/// Linux, through /proc, pidfds and sock_diag.
class LinuxKernel final : public Kernel {
 public:
  /// `settled`: the age at which a witness of a process's rest counts.
  explicit LinuxKernel(std::chrono::nanoseconds settled = RestWitness::longestTick);

  std::uint32_t userID() const override;
  std::vector<ProcessRecord> fetchAllProcessRecords(std::uint32_t owner) override;
  std::unique_ptr<HeldProcess> holdProcess(std::int32_t pid) override;
  std::unique_ptr<SocketTable> openSocketTable() override;

 private:
  struct SocketListing {
    std::unique_ptr<SocketTable> table;
    bool ranOutOfDescriptors;
  };

  SocketListing readSockets(bool remember);
  void closeKeptFiles();

  const FileDescriptor procDirectory_;
  const StartClock clock_;
  ProcessTable processes_;
  SocketHolders holders_;
};

}  // namespace tessaloom::linux_kernel
