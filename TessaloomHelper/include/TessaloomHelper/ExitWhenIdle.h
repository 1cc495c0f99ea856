#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string_view>

#include "HelperCore/ExecutableIdentity.h"
#include "TessaloomHelper/CLIRunner.h"
#include "TessaloomHelper/Tasks.h"

namespace tessaloom {

/// Records which executable this process was started from, and exits once it has been replaced and
/// no engine call is unfinished. Safe from any thread.
class ExitWhenIdle {
 public:
  static constexpr std::chrono::milliseconds firstCheck{200};
  static constexpr std::chrono::milliseconds nextCheck{500};
  /// Written to standard error by `exitProcess`, once every reply has been sent.
  static constexpr std::string_view exitLine =
      "executable replaced on disk; exiting so launchd starts the new build";

  /// `executable` is the path of the process's own executable, nullopt when the system does not
  /// report it. `start` describes the file that was executed. `exitProcess` ends the process in the
  /// platform's orderly way; called once a check finds no engine call, possibly more than once.
  ExitWhenIdle(std::optional<std::filesystem::path> executable,
               std::optional<ExecutableIdentity> start, CLIRunner& runner, Tasks& tasks,
               std::function<void()> exitProcess);

  /// Whether another file is at the executable's path, or the same one with a later modification
  /// time. A missing file is not a replacement.
  bool isExecutableReplaced() const;

  /// Checks after `delay`, and then every `nextCheck`, whether the runner has an unfinished engine
  /// call; exits at the first check that finds none. However often it is called, one check is
  /// repeated. If the system lacks the memory or thread for a check, none is scheduled until this
  /// is called again, by the next `QuitIfOutdated`.
  void scheduleExitWhenIdle(std::chrono::milliseconds delay) noexcept;

 private:
  std::optional<std::filesystem::path> executable_;
  std::optional<ExecutableIdentity> start_;
  CLIRunner& runner_;
  Tasks& tasks_;
  std::function<void()> exitProcess_;
  std::atomic<bool> isRepeatPending_ = false;
};

}  // namespace tessaloom
