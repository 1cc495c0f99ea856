#include "linux/BootClock.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <thread>

namespace tessaloom {

namespace {

using std::chrono::nanoseconds;

constexpr nanoseconds second = std::chrono::seconds{1};

nanoseconds read(clockid_t clock) {
  timespec now{};
  if (::clock_gettime(clock, &now) != 0) return {};
  return std::chrono::seconds{now.tv_sec} + nanoseconds{now.tv_nsec};
}

/// What a process's start time is counted from; it goes on while the machine sleeps.
nanoseconds sinceBoot() {
  return read(CLOCK_BOOTTIME);
}

std::int64_t systemTicksPerSecond() {
  return std::max(1L, ::sysconf(_SC_CLK_TCK));
}

}  // namespace

BootClock::BootClock() : BootClock(read(CLOCK_REALTIME) - sinceBoot(), systemTicksPerSecond()) {}

BootClock::BootClock(nanoseconds bootTime, std::int64_t ticksPerSecond)
    : ticksPerSecond_(ticksPerSecond), bootTick_(bootTime / (second / ticksPerSecond)) {}

ProcessStartTime BootClock::startTime(std::uint64_t ticks) const {
  const std::int64_t tick = bootTick_ + static_cast<std::int64_t>(ticks);
  const std::int64_t microseconds = tick % ticksPerSecond_ * 1'000'000 / ticksPerSecond_;
  return {.startSec = tick / ticksPerSecond_, .startUSec = static_cast<std::int32_t>(microseconds)};
}

Instant BootClock::now() const {
  const nanoseconds boot = bootTick_ * (second / ticksPerSecond_);
  return Instant{std::chrono::duration_cast<Instant::duration>(boot + sinceBoot())};
}

std::uint64_t BootClock::currentTick() const {
  return static_cast<std::uint64_t>(sinceBoot() / (second / ticksPerSecond_));
}

void BootClock::sleepPast(std::uint64_t tick) const {
  const nanoseconds tickLength = second / ticksPerSecond_;
  const nanoseconds remaining = static_cast<std::int64_t>(tick + 1) * tickLength - sinceBoot();
  std::this_thread::sleep_for(std::min(remaining, 2 * tickLength));
}

}  // namespace tessaloom
