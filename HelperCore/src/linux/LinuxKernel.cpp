#include "linux/LinuxKernel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <utility>

#include "linux/LinuxHeldProcess.h"
#include "linux/LinuxSocketTable.h"
#include "linux/ProcFiles.h"
#include "linux/SocketDump.h"

namespace tessaloom::linux_kernel {

namespace {

/// Adds the sockets of the namespaces that are not the helper's own, each by way of the first
/// process in it that lets itself be asked.
void addForeignNamespaces(const FileDescriptor& procDirectory,
                          const std::vector<std::shared_ptr<const HeldSockets>>& holders,
                          DumpedSockets& sockets) {
  struct stat own{};
  if (fstatat(procDirectory.get(), "self/ns/net", &own, 0) != 0) return;
  std::set<std::uint64_t> done{0, own.st_ino};
  for (const auto& holder : holders) {
    if (done.contains(holder->networkNamespace)) continue;
    if (addSocketsOfProcess(procDirectory, holder->pid, sockets)) {
      done.insert(holder->networkNamespace);
    }
  }
}

}  // namespace

LinuxKernel::LinuxKernel(std::chrono::nanoseconds settled)
    : procDirectory_(openAt(AT_FDCWD, "/proc", O_DIRECTORY)),
      processes_(procDirectory_, clock_, settled),
      holders_(procDirectory_, settled) {}

std::uint32_t LinuxKernel::userID() const {
  return getuid();
}

std::vector<ProcessRecord> LinuxKernel::fetchAllProcessRecords(std::uint32_t owner) {
  auto listing = processes_.read(owner, true);
  if (listing.ranOutOfDescriptors) {
    closeKeptFiles();
    listing = processes_.read(owner, false);
  }
  return std::move(listing.records);
}

std::unique_ptr<HeldProcess> LinuxKernel::holdProcess(std::int32_t pid) {
  return std::make_unique<LinuxHeldProcess>(procDirectory_, clock_, pid);
}

std::unique_ptr<SocketTable> LinuxKernel::openSocketTable() {
  SocketListing listing = readSockets(true);
  if (listing.ranOutOfDescriptors) {
    closeKeptFiles();
    listing = readSockets(false);
  }
  return std::move(listing.table);
}

LinuxKernel::SocketListing LinuxKernel::readSockets(bool remember) {
  DumpedSockets sockets = dumpSockets(procDirectory_);
  auto listing = holders_.read(userID(), remember);
  addForeignNamespaces(procDirectory_, listing.holders, sockets);
  return {.table = std::make_unique<LinuxSocketTable>(std::move(listing.holders),
                                                      std::move(sockets.byInode)),
          .ranOutOfDescriptors = sockets.ranOutOfDescriptors || listing.ranOutOfDescriptors};
}

void LinuxKernel::closeKeptFiles() {
  processes_.closeKeptFiles();
  holders_.forget();
}

}  // namespace tessaloom::linux_kernel

std::unique_ptr<tessaloom::Kernel> tessaloom::makeSystemKernel() {
  return std::make_unique<linux_kernel::LinuxKernel>();
}
