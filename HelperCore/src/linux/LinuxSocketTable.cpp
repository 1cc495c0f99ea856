#include "linux/LinuxSocketTable.h"

#include <algorithm>

namespace tessaloom::linux_kernel {

namespace {

std::int32_t pidOf(const std::shared_ptr<const HeldSockets>& holder) {
  return holder->pid;
}

}  // namespace

std::vector<std::int32_t> LinuxSocketTable::listOwnPIDs() {
  std::vector<std::int32_t> pids(holders_.size());
  std::ranges::transform(holders_, pids.begin(), pidOf);
  return pids;
}

std::vector<std::int32_t> LinuxSocketTable::socketDescriptors(std::int32_t pid) {
  std::vector<std::int32_t> numbers;
  const HeldSockets* held = holder(pid);
  if (held == nullptr) return numbers;
  for (const auto& [number, inode] : held->descriptors) {
    if (sockets_.contains(inode)) numbers.push_back(number);
  }
  return numbers;
}

std::string LinuxSocketTable::readProcessName(std::int32_t pid) {
  const HeldSockets* held = holder(pid);
  return held == nullptr ? std::string{} : held->name;
}

std::optional<SocketInfo> LinuxSocketTable::socketInfo(std::int32_t pid, std::int32_t descriptor) {
  const HeldSockets* held = holder(pid);
  if (held == nullptr) return std::nullopt;
  auto found =
      std::ranges::lower_bound(held->descriptors, descriptor, {}, &HeldSockets::Descriptor::number);
  if (found == held->descriptors.end() || found->number != descriptor) return std::nullopt;
  auto socket = sockets_.find(found->inode);
  if (socket == sockets_.end()) return std::nullopt;
  return socket->second;
}

const HeldSockets* LinuxSocketTable::holder(std::int32_t pid) const {
  auto found = std::ranges::lower_bound(holders_, pid, {}, pidOf);
  return found != holders_.end() && pidOf(*found) == pid ? found->get() : nullptr;
}

}  // namespace tessaloom::linux_kernel
