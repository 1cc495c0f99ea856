#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "HelperCore/CLIInvocation.h"
#include "HelperCore/SpawnPlatform.h"
#include "TLFoundation/FileDescriptor.h"
#include "TLFoundation/Mutex.h"

namespace tessaloom {

/// How a child ended: its exit status, or the number of the signal that killed it.
struct ChildEnd {
  std::int32_t number;
  bool wasKilled;
};

/// A child that leads its own process group. Only this class signals or reaps it: once it is reaped
/// another process may get its pid, so both happen under one lock and the reaping is recorded.
///
/// `terminate` sends SIGTERM and only records when SIGKILL is due; the thread that waits for the
/// child sends it, by `sendDueKills`. Safe from any thread.
class ChildProcess {
  struct MadeByLaunch {};

 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::seconds killDelay{3};  ///< From SIGTERM to SIGKILL.

  /// Launches the child as `SpawnPlatform::spawn` does, or fails as it does. One byte or more is
  /// written to `wake` whenever the child is terminated.
  static std::expected<std::shared_ptr<ChildProcess>, int> launch(
      const CLIInvocation& invocation, const SpawnPlatform::ChildEnds& ends, FileDescriptor wake,
      const std::optional<rlimit>& descriptorLimit);

  ChildProcess(MadeByLaunch, FileDescriptor wake) : wake_(std::move(wake)) {}
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }

  /// Sends SIGTERM to the group, or to the child alone if it has left its group, and lets SIGKILL
  /// to the same target fall due `killDelay` from now. False when the child has exited: nothing is
  /// sent then, even if its group lives on.
  bool terminate() TL_EXCLUDES(lock_);

  /// Whether `terminate` has sent anything.
  bool wasTerminated() const TL_EXCLUDES(lock_);

  /// When the next kill falls due, if there is one.
  std::optional<Clock::time_point> nextKill() const TL_EXCLUDES(lock_);

  /// Sends the kills that are due by `now`, if the child still lives: each to its target, and to
  /// the child in any case.
  void sendDueKills(Clock::time_point now) TL_EXCLUDES(lock_);

  /// Whether the child has exited by now and can be reaped; while another process traces it, it
  /// cannot.
  bool hasExited() const TL_EXCLUDES(lock_);

  /// Reaps an exited child.
  ChildEnd reap() TL_EXCLUDES(lock_);

  /// Kills the group, or the child alone if it has left its group, and reaps: for a run that cannot
  /// go on. Does nothing after `reap`.
  void destroy() TL_EXCLUDES(lock_);

 private:
  struct Kill {
    Clock::time_point due;
    pid_t target;  ///< As kill(2) takes it: negative for a group.
  };

  bool isRunning() const TL_REQUIRES(lock_);
  /// The group as kill(2) takes it, or the child alone if it has left its group.
  pid_t killTarget() const TL_REQUIRES(lock_);
  void sendKill(pid_t target) const TL_REQUIRES(lock_);

  pid_t pid_ = 0;  ///< Constant once launched.
  mutable Mutex lock_;
  FileDescriptor wake_ TL_GUARDED_BY(lock_);
  bool reaped_ TL_GUARDED_BY(lock_) = false;
  bool terminated_ TL_GUARDED_BY(lock_) = false;
  std::vector<Kill> kills_ TL_GUARDED_BY(lock_);  ///< In the order in which they fall due.
};

}  // namespace tessaloom
