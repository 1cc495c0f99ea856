#include "linux/IdleProbe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <optional>
#include <string_view>

namespace tessaloom {

namespace {

std::optional<RunCounters> readCounters(const FileDescriptor& schedstat) {
  std::array<char, 128> buffer;
  return parseRunCounters(readStart(schedstat, buffer));
}

/// Whether some CPUs run without a tick while a single process runs on them. The file lists them;
/// kernels without this feature do not have it.
bool mayRunWithoutTicks() {
  if (::access("/sys/devices/system/cpu", F_OK) != 0) return true;
  const FileDescriptor file{::open("/sys/devices/system/cpu/nohz_full", O_RDONLY | O_CLOEXEC)};
  std::array<char, 64> buffer;
  return readStart(file, buffer).find_first_of("0123456789") != std::string_view::npos;
}

}  // namespace

std::chrono::nanoseconds IdleProbe::longestTick() {
  using namespace std::chrono_literals;
  return mayRunWithoutTicks() ? 2s : 100ms;
}

IdleProbe::IdleProbe(const ProcFiles& proc, std::int32_t pid)
    : schedstat_(proc.open(ProcPath{pid, "schedstat"})) {
  if (!restart()) schedstat_.reset();
}

bool IdleProbe::isUnchanged() const {
  return readCounters(schedstat_) == counters_;
}

bool IdleProbe::restart() {
  const auto counters = readCounters(schedstat_);
  since_ = Clock::now();
  if (counters) counters_ = *counters;
  return counters.has_value();
}

}  // namespace tessaloom
