#include "TessaloomHelper/ExitWhenIdle.h"

#include <exception>
#include <utility>

namespace tessaloom {

ExitWhenIdle::ExitWhenIdle(std::optional<std::filesystem::path> executable,
                           std::optional<ExecutableIdentity> start, CLIRunner& runner, Tasks& tasks,
                           std::function<void()> exitProcess)
    : executable_(std::move(executable)),
      start_(start),
      runner_(runner),
      tasks_(tasks),
      exitProcess_(std::move(exitProcess)) {}

bool ExitWhenIdle::isExecutableReplaced() const {
  if (!start_ || !executable_) return false;
  const auto current = ExecutableIdentity::of(*executable_);
  if (!current) return false;
  if (current->device != start_->device || current->inode != start_->inode) return true;
  return current->modified > start_->modified;
}

void ExitWhenIdle::scheduleExitWhenIdle(std::chrono::milliseconds delay) noexcept {
  const bool isRepeated = delay == nextCheck;
  if (isRepeated && isRepeatPending_.exchange(true)) return;
  try {
    tasks_.runAfter(delay, QualityOfService::utility, [this, isRepeated] {
      if (isRepeated) isRepeatPending_ = false;
      if (runner_.unfinishedCount() > 0) return scheduleExitWhenIdle(nextCheck);
      exitProcess_();
    });
  } catch (const std::exception&) {
    // No memory or no thread: the helper continues until it is asked again.
    if (isRepeated) isRepeatPending_ = false;
  }
}

}  // namespace tessaloom
