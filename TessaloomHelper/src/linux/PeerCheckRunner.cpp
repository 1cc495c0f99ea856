#include "linux/PeerCheckRunner.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <iterator>
#include <new>
#include <thread>
#include <utility>

#include "TLFoundation/DescriptorShortage.h"

namespace tessaloom {

namespace {

/// Together well below the time limit.
constexpr int maximumTries = 10;
constexpr std::chrono::milliseconds pauseBetweenTries{50};

}  // namespace

PeerCheckRunner::Job::Job(PeerCheckRunner& owner, pid_t checked, Handler whenDone)
    : runner(owner),
      process(checked),
      handler(std::move(whenDone)),
      deadline(Clock::now() + owner.limit_) {}

PeerCheckRunner::PeerCheckRunner(CompletionQueue& completions, Tasks& tasks, Check check,
                                 std::function<void()> releaseDescriptors,
                                 std::chrono::milliseconds limit)
    : completions_(completions),
      tasks_(tasks),
      check_(std::move(check)),
      releaseDescriptors_(std::move(releaseDescriptors)),
      limit_(limit) {}

bool PeerCheckRunner::start(pid_t process, Handler handler) {
  const auto ofProcess = std::ranges::count(jobs_, process, &Job::process);
  if (static_cast<std::size_t>(ofProcess) >= maximumOfProcess) return false;
  Job& job = jobs_.emplace_back(*this, process, std::move(handler));
  job.position = std::prev(jobs_.end());
  try {
    setTimer();
    startWaiting();
  } catch (const std::bad_alloc&) {
    if (job.state == State::waiting) jobs_.erase(job.position);
    throw;
  }
  return true;
}

PeerCheckRunner::Result PeerCheckRunner::check(pid_t process) noexcept {
  for (int tries = 1;; ++tries) {
    int error = ENOMEM;
    try {
      const auto isAdmitted = check_(process);
      if (isAdmitted) return *isAdmitted ? Result::admitted : Result::refused;
      error = isAdmitted.error();
    } catch (const std::bad_alloc&) {
      error = ENOMEM;
    } catch (const std::exception&) {
      return Result::refused;
    }
    // A shortage says nothing about the peer and must not be recorded as a refusal.
    if (!isShortage(error)) return Result::refused;
    if (tries == maximumTries) return Result::unknown;
    releaseDescriptors_();
    std::this_thread::sleep_for(pauseBetweenTries);
  }
}

void PeerCheckRunner::startWaiting() {
  for (Job& job : jobs_) {
    if (running_ >= maximumRunning || running_ + stuck_ >= maximumRunning + maximumStuck) return;
    if (job.state != State::waiting || busy_.contains(job.process)) continue;
    busy_.insert(job.process);
    ++running_;
    job.state = State::running;
    try {
      tasks_.runConcurrently(QualityOfService::userInitiated, [&job] {
        job.result = job.runner.check(job.process);
        job.runner.completions_.post(job);
      });
    } catch (const std::exception&) {
      completions_.post(job);  // Without a result.
    }
  }
}

void PeerCheckRunner::finish(Job& finished) {
  std::list<Job> removed;
  removed.splice(removed.end(), jobs_, finished.position);
  --(finished.state == State::stuck ? stuck_ : running_);
  busy_.erase(finished.process);
  startWaiting();
  if (finished.handler) finished.handler(finished.result);
}

// The oldest come first and so expire first.
void PeerCheckRunner::expire() {
  timer_.isSet = false;
  const auto now = Clock::now();
  std::list<Handler> handlers;
  for (auto job = jobs_.begin(); job != jobs_.end() && job->deadline <= now;) {
    const auto current = job++;
    if (current->state == State::stuck) continue;
    handlers.push_back(std::exchange(current->handler, nullptr));
    if (current->state == State::waiting) {
      jobs_.erase(current);
    } else {
      current->state = State::stuck;
      --running_;
      ++stuck_;
    }
  }
  startWaiting();
  setTimer();
  for (const Handler& handler : handlers) handler(Result::unknown);
}

void PeerCheckRunner::setTimer() {
  const auto next =
      std::ranges::find_if(jobs_, [](const Job& job) { return job.state != State::stuck; });
  if (timer_.isSet || next == jobs_.end()) return;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(next->deadline - Clock::now());
  tasks_.runAfter(std::max(left, std::chrono::milliseconds(0)), QualityOfService::utility,
                  [this] { completions_.post(timer_); });
  timer_.isSet = true;
}

}  // namespace tessaloom
