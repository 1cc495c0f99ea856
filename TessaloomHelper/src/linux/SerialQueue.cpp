#include "linux/SerialQueue.h"

#include <utility>

namespace tessaloom {

SerialQueue::SerialQueue(Tasks& tasks, QualityOfService quality)
    : tasks_(tasks), quality_(quality) {}

void SerialQueue::submit(std::function<void()> job) {
  {
    const MutexLock lock(state_->lock);
    state_->jobs.push_back(std::move(job));
    if (std::exchange(state_->isRunning, true)) return;
  }
  try {
    tasks_.runConcurrently(quality_, [state = state_] { runAll(*state); });
  } catch (...) {
    std::function<void()> refused;  // Destroyed after the lock is released.
    const MutexLock lock(state_->lock);
    refused = std::move(state_->jobs.front());
    state_->jobs.pop_front();
    state_->isRunning = false;
    throw;
  }
}

void SerialQueue::runAll(State& state) {
  for (;;) {
    std::function<void()> job;
    {
      const MutexLock lock(state.lock);
      if (state.jobs.empty()) {
        state.isRunning = false;
        return;
      }
      job = std::move(state.jobs.front());
      state.jobs.pop_front();
    }
    job();
  }
}

}  // namespace tessaloom
