#include "linux/LinuxKernel.h"

#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "linux/LinuxProcessHandle.h"
#include "linux/ProcessRecords.h"
#include "linux/SocketHolders.h"

namespace tessaloom {

LinuxKernel::LinuxKernel(std::chrono::nanoseconds idleAge)
    : procDirectory_(::open("/proc", O_RDONLY | O_CLOEXEC | O_DIRECTORY)), idleAge_(idleAge) {}

std::uint32_t LinuxKernel::userID() const {
  return ::getuid();
}

Instant LinuxKernel::wallClockTime() const {
  return std::chrono::time_point_cast<Instant::duration>(std::chrono::system_clock::now());
}

Instant LinuxKernel::processClockTime() const {
  return clock_.now();
}

// Lists with what is known, and once more without it where descriptors ran out.
template <class Row>
std::vector<Row> LinuxKernel::list(std::uint32_t owner, std::vector<Row> (*read)(ProcessScan&)) {
  {
    const auto known = known_.tryTake();
    ProcessScan scan(procDirectory_, clock_, owner, idleAge_,
                     known ? std::exchange(*known, {}) : std::vector<KnownProcess>{}, bool(known));
    auto rows = read(scan);
    if (!scan.ranOutOfDescriptors()) {
      if (known) *known = scan.takeKnown();
      return rows;
    }
  }
  releaseKeptDescriptors();
  // NOLINTNEXTLINE(misc-const-correctness): `read` changes it
  ProcessScan scan(procDirectory_, clock_, owner, idleAge_);
  return read(scan);
}

std::vector<ProcessRecord> LinuxKernel::fetchAllProcessRecords(std::uint32_t owner) {
  return list(owner, readProcessRecords);
}

std::vector<SocketHolder> LinuxKernel::fetchSocketHolders(std::uint32_t owner) {
  return list(owner, readSocketHolders);
}

std::unique_ptr<ProcessHandle> LinuxKernel::openProcess(std::int32_t pid) {
  auto handle = std::make_unique<LinuxProcessHandle>(procDirectory_, clock_, pid);
  if (!handle->ranOutOfDescriptors()) return handle;
  releaseKeptDescriptors();
  return std::make_unique<LinuxProcessHandle>(procDirectory_, clock_, pid);
}

void LinuxKernel::releaseKeptDescriptors() {
  std::vector<KnownProcess>{}.swap(*known_.take());
}

}  // namespace tessaloom

std::unique_ptr<tessaloom::Kernel> tessaloom::makeSystemKernel() {
  return std::make_unique<LinuxKernel>();
}
