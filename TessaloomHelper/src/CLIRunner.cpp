#include "TessaloomHelper/CLIRunner.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "HelperCore/ChildProcess.h"
#include "HelperCore/ChildRun.h"
#include "TLFoundation/DescriptorShortage.h"
#include "TLFoundation/ErrnoText.h"
#include "TLFoundation/Unicode.h"

namespace tessaloom {

namespace {

using Clock = ChildProcess::Clock;

/// The whole seconds of a timeout. One that is not a number of seconds is an error of the caller.
std::int64_t wholeSeconds(std::chrono::duration<double> timeout) {
  const double seconds = timeout.count();
  if (std::isnan(seconds) || std::abs(seconds) >= 0x1p63) std::abort();
  return static_cast<std::int64_t>(seconds);
}

/// The moment at which a timeout that starts now has passed, bounded to what the clock can hold.
Clock::time_point deadlineAfter(std::chrono::duration<double> timeout) {
  constexpr std::chrono::duration<double> longest = std::chrono::years(100);
  return Clock::now() +
         std::chrono::duration_cast<Clock::duration>(std::clamp(timeout, -longest, longest));
}

GenerationErrorPayload launchFailure(GenerationEngineID engine, int error) {
  return GenerationErrorPayload::withDetail(GenerationFailureKind::launchFailed, engine,
                                            errnoText(error));
}

}  // namespace

/// A child's place in the registry, given up with this object at the latest.
class CLIRunner::Registration {
 public:
  Registration(CLIRunner& runner, const std::optional<UUID>& requestID,
               std::shared_ptr<ChildProcess> child)
      : Registration(runner, requestID) {
    // The object counts as made from here on, so a failure in between is cleaned up too.
    child_ = std::move(child);
    const MutexLock locked(runner.lock_);
    runner.running_.insert(child_);
    if (requestID_) runner.inFlight_.insert_or_assign(*requestID_, child_);
  }
  ~Registration() { end(); }
  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;

  /// Forgets the child and what is remembered of its id, once: what comes later is the next run's.
  /// Whether a cancellation was remembered.
  bool end() {
    CLIRunner* const runner = std::exchange(runner_, nullptr);
    if (runner == nullptr) return false;
    const MutexLock locked(runner->lock_);
    runner->running_.erase(child_);
    if (!requestID_) return false;
    runner->inFlight_.erase(*requestID_);
    return runner->cancelled_.erase(*requestID_) != 0;
  }

 private:
  Registration(CLIRunner& runner, const std::optional<UUID>& requestID)
      : runner_(&runner), requestID_(requestID) {}

  CLIRunner* runner_;  ///< Null once this has ended.
  const std::optional<UUID> requestID_;
  std::shared_ptr<ChildProcess> child_;
};

std::expected<RunResult, GenerationErrorPayload> CLIRunner::run(
    const CLIInvocation& invocation, const std::optional<UUID>& requestID,
    GenerationEngineID engine, std::chrono::duration<double> timeout) try {
  const std::int64_t seconds = wholeSeconds(timeout);
  const auto cancelled = [engine] {
    return std::unexpected(GenerationErrorPayload{GenerationFailureKind::cancelled, engine});
  };
  if (isEnding()) return cancelled();
  auto process = withDescriptors(releaseDescriptors_,
                                 [&] { return ChildRun::launch(invocation, descriptorLimit_); });
  if (!process) return std::unexpected(launchFailure(engine, process.error()));
  const std::shared_ptr<ChildProcess>& child = process->child();
  Registration registration(*this, requestID, child);
  if (isEnding()) child->terminate();

  const bool inTime = process->awaitExit(deadlineAfter(timeout));
  if (!inTime) {
    child->terminate();
    process->awaitExit(Clock::time_point::max());
  }
  process->awaitReaders();

  const bool wasCancelled = registration.end();
  if (!inTime) {
    return std::unexpected(GenerationErrorPayload::withDetail(
        GenerationFailureKind::timedOut, engine,
        "The command didn’t finish within " + std::to_string(seconds) + " seconds."));
  }
  if (wasCancelled || (isEnding() && child->wasTerminated())) return cancelled();
  return RunResult{.exitStatus = process->end().number,
                   .standardOutput = Unicode::repairUTF8(process->standardOutput().contents()),
                   .standardError = Unicode::repairUTF8(process->standardError().contents())};
} catch (const std::bad_alloc&) {
  return std::unexpected(launchFailure(engine, ENOMEM));
}

bool CLIRunner::cancel(const UUID& requestID) {
  std::shared_ptr<ChildProcess> child;
  {
    const MutexLock locked(lock_);
    cancelled_.insert(requestID);
    if (const auto found = inFlight_.find(requestID); found != inFlight_.end()) {
      child = found->second;
    }
  }
  return child && child->terminate();
}

std::size_t CLIRunner::inFlightCount() const {
  const MutexLock locked(lock_);
  return inFlight_.size();
}

CLIRunner::Work CLIRunner::accept() {
  ++unfinished_;
  return {this, [this](const void*) { --unfinished_; }};
}

void CLIRunner::endAll() {
  std::vector<std::shared_ptr<ChildProcess>> children;
  {
    const MutexLock locked(lock_);
    if (ending_) return;
    children.assign(running_.begin(), running_.end());
    ending_ = true;  // A run that registers later ends itself.
  }
  for (const auto& child : children) child->terminate();
}

bool CLIRunner::isEnding() const {
  const MutexLock locked(lock_);
  return ending_;
}

}  // namespace tessaloom
