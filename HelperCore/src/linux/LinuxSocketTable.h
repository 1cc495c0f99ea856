#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "HelperCore/Kernel.h"
#include "linux/SocketHolders.h"
#include "linux/SocketText.h"

namespace tessaloom::linux_kernel {

/// Who holds which sockets, joined with what those sockets are.
class LinuxSocketTable final : public SocketTable {
 public:
  LinuxSocketTable(std::vector<std::shared_ptr<const HeldSockets>> holders, SocketsByInode sockets)
      : holders_(std::move(holders)), sockets_(std::move(sockets)) {}

  std::vector<std::int32_t> listOwnPIDs() override;
  std::vector<std::int32_t> socketDescriptors(std::int32_t pid) override;
  std::string readProcessName(std::int32_t pid) override;
  std::optional<SocketInfo> socketInfo(std::int32_t pid, std::int32_t descriptor) override;

 private:
  /// Null for a pid that is not among the holders.
  const HeldSockets* holder(std::int32_t pid) const;

  const std::vector<std::shared_ptr<const HeldSockets>> holders_;  ///< By pid.
  const SocketsByInode sockets_;
};

}  // namespace tessaloom::linux_kernel
