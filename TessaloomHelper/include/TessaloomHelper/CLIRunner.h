#pragma once

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "HelperCore/CLIInvocation.h"
#include "HelperProtocol/GenerationErrorPayload.h"
#include "HelperProtocol/UUID.h"
#include "TLFoundation/Mutex.h"

namespace tessaloom {

/// How a child ended and what it printed.
struct RunResult {
  std::int32_t exitStatus;  ///< The exit status, or the number of the signal that ended the child.
  std::string standardOutput;  ///< UTF-8, ill-formed parts repaired.
  std::string standardError;   ///< UTF-8, ill-formed parts repaired.
};

class ChildProcess;

/// Runs command-line tools as child processes, each the leader of a process group of its own, with
/// bounded output, a deadline and cancellation, and keeps the registry of the generations that run.
/// One for the whole process.
///
/// A run needs no thread but its caller's. Nothing outlives it: no descriptor, zombie or buffer.
/// Safe from any thread. The process must ignore SIGPIPE (a child may close its input early) and
/// leave SIGCHLD at its default.
class CLIRunner {
 public:
  /// `descriptorLimit` is what children get as their limit on descriptors, for a process that has
  /// raised its own (Linux only). `releaseDescriptors` closes what this process keeps open only for
  /// speed; it is called when a launch finds too many open files, before it is tried again.
  explicit CLIRunner(
      std::optional<rlimit> descriptorLimit = std::nullopt,
      std::function<void()> releaseDescriptors = [] {})
      : descriptorLimit_(descriptorLimit), releaseDescriptors_(std::move(releaseDescriptors)) {}
  CLIRunner(const CLIRunner&) = delete;
  CLIRunner& operator=(const CLIRunner&) = delete;

  /// Runs one command and blocks until it has exited, could not be launched, or passed its deadline
  /// and was ended. It waits without limit for a child that SIGKILL does not end: one that changed
  /// its user id, is in an uninterruptible system call, or is traced by a process outside its
  /// group.
  ///
  /// A run with a request id is registered and can be cancelled; one without is neither. Fails with
  /// launchFailed, timedOut or cancelled, never with an exit code; a non-zero status is a result.
  /// `engine` only fills the failure. `timeout` must be finite and fit a signed 64-bit number of
  /// seconds; anything else ends the process.
  ///
  /// Both output streams are read while the input is written. A stream that passes 4 MiB is read no
  /// further, so a child that goes on writing blocks until its deadline. A stream that some process
  /// still has open `ChildRun::readersGrace` after the exit counts as empty.
  std::expected<RunResult, GenerationErrorPayload> run(const CLIInvocation& invocation,
                                                       const std::optional<UUID>& requestID,
                                                       GenerationEngineID engine,
                                                       std::chrono::duration<double> timeout)
      TL_EXCLUDES(lock_);

  /// Ends the registered run of this id: SIGTERM, and SIGKILL 3 seconds later if its leader still
  /// lives. True when it was running. The id is remembered in every case until a run of that id
  /// cleans up, which then reports `cancelled` unless its deadline has passed.
  bool cancel(const UUID& requestID) TL_EXCLUDES(lock_);

  /// How many generations are registered.
  std::size_t inFlightCount() const TL_EXCLUDES(lock_);

  /// An engine call, a generation or a probe, that counts as unfinished while a copy of this
  /// exists.
  using Work = std::shared_ptr<const void>;

  /// Counts an engine call as unfinished from its acceptance on, before any of its work has
  /// started. The runner must outlive the result.
  Work accept();

  /// How many accepted engine calls are unfinished, whether they wait, launch, run or are being
  /// answered. A helper that released its name while there are any would no longer receive their
  /// cancellations.
  std::size_t unfinishedCount() const { return unfinished_; }

  /// For a process that must exit: ends every run as `cancel` does, the unregistered ones too, and
  /// launches none later. Each of them reports `cancelled`, unless it has finished by itself.
  /// Returns at once; the runs return to their callers within 3 seconds and
  /// `ChildRun::readersGrace`, apart from those whose child SIGKILL does not end.
  void endAll() TL_EXCLUDES(lock_);

 private:
  class Registration;

  bool isEnding() const TL_EXCLUDES(lock_);

  const std::optional<rlimit> descriptorLimit_;
  const std::function<void()> releaseDescriptors_;
  std::atomic<std::size_t> unfinished_ = 0;
  mutable Mutex lock_;
  std::unordered_map<UUID, std::shared_ptr<ChildProcess>> inFlight_ TL_GUARDED_BY(lock_);
  std::unordered_set<UUID> cancelled_ TL_GUARDED_BY(lock_);
  /// Registered or not.
  std::unordered_set<std::shared_ptr<ChildProcess>> running_ TL_GUARDED_BY(lock_);
  bool ending_ TL_GUARDED_BY(lock_) = false;
};

}  // namespace tessaloom
