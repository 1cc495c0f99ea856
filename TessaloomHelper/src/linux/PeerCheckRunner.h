#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <list>
#include <unordered_set>

#include "TessaloomHelper/Tasks.h"
#include "linux/CompletionQueue.h"

namespace tessaloom {

/// Runs the checks of peers away from the bus's thread, so that one that takes long delays nobody
/// but its own process.
///
/// One check of a process runs at a time, `maximumRunning` in all; the others wait in the order in
/// which they came. A check without a result after `timeLimit` ends as `unknown`. A thread that is
/// still blocked in the kernel then is stuck: it no longer counts as running, but its process is
/// not checked again before it returns. Running and stuck threads together are `maximumRunning` +
/// `maximumStuck` at most.
///
/// On the bus's thread only. Handlers run there as well, never from start().
class PeerCheckRunner {
 public:
  enum class Result : std::uint8_t {
    admitted,
    refused,
    unknown,  ///< Not decided in time, or for lack of memory or descriptors.
  };

  /// Whether a process may call, or the errno of why that cannot be read. Runs on other threads.
  using Check = std::function<std::expected<bool, int>(pid_t process)>;
  using Handler = std::function<void(Result)>;

  static constexpr std::size_t maximumRunning = 4;
  static constexpr std::size_t maximumStuck = 16;
  static constexpr std::size_t maximumOfProcess = 64;  ///< Waiting and running.
  static constexpr std::chrono::seconds timeLimit{5};

  /// `tasks` runs the checks and nothing else. `releaseDescriptors` closes what is only kept for
  /// speed; it is called on other threads, before a check that lacked descriptors is repeated.
  PeerCheckRunner(CompletionQueue& completions, Tasks& tasks, Check check,
                  std::function<void()> releaseDescriptors,
                  std::chrono::milliseconds limit = timeLimit);
  PeerCheckRunner(const PeerCheckRunner&) = delete;
  PeerCheckRunner& operator=(const PeerCheckRunner&) = delete;

  /// Has a process checked; false when too many checks of it are under way.
  bool start(pid_t process, Handler handler);

 private:
  using Clock = std::chrono::steady_clock;
  enum class State : std::uint8_t { waiting, running, stuck };

  struct Job final : CompletionQueue::Completion {
    Job(PeerCheckRunner& owner, pid_t checked, Handler whenDone);
    void run() override { runner.finish(*this); }

    PeerCheckRunner& runner;
    pid_t process;
    Handler handler;
    Clock::time_point deadline;
    State state = State::waiting;
    Result result = Result::unknown;
    std::list<Job>::iterator position;
  };

  struct Timer final : CompletionQueue::Completion {
    explicit Timer(PeerCheckRunner& owner) : runner(owner) {}
    void run() override { runner.expire(); }

    PeerCheckRunner& runner;
    bool isSet = false;
  };

  Result check(pid_t process) noexcept;
  void startWaiting();
  void finish(Job& finished);
  void expire();
  void setTimer();

  CompletionQueue& completions_;
  Tasks& tasks_;
  Check check_;
  std::function<void()> releaseDescriptors_;
  std::chrono::milliseconds limit_;
  std::list<Job> jobs_;
  std::unordered_set<pid_t> busy_;  ///< Processes whose check runs or is stuck.
  std::size_t running_ = 0;
  std::size_t stuck_ = 0;
  Timer timer_{*this};
};

}  // namespace tessaloom
