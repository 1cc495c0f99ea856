#include "linux/PeerVetting.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <iterator>
#include <new>
#include <thread>
#include <utility>

#include "linux/ProcessDirectory.h"

namespace tessaloom {

namespace {

// Together well below the time limit.
constexpr int maximumTries = 10;
constexpr std::chrono::milliseconds pauseBetweenTries{50};

}  // namespace

PeerVetting::Vetting::Vetting(PeerVetting& owner, pid_t checked, Handler whenDone)
    : vetting(owner),
      process(checked),
      handler(std::move(whenDone)),
      deadline(Clock::now() + owner.limit_) {}

PeerVetting::PeerVetting(CompletionQueue& completions, Tasks& tasks, Check check,
                         std::function<void()> releaseDescriptors, std::chrono::milliseconds limit)
    : completions_(completions),
      tasks_(tasks),
      check_(std::move(check)),
      releaseDescriptors_(std::move(releaseDescriptors)),
      limit_(limit) {}

bool PeerVetting::start(pid_t process, Handler handler) {
  const auto ofProcess = std::ranges::count(vettings_, process, &Vetting::process);
  if (static_cast<std::size_t>(ofProcess) >= maximumOfProcess) return false;
  Vetting& vetting = vettings_.emplace_back(*this, process, std::move(handler));
  vetting.position = std::prev(vettings_.end());
  startWaiting();
  setTimer();
  return true;
}

PeerVetting::Result PeerVetting::check(pid_t process) noexcept {
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

void PeerVetting::startWaiting() {
  for (Vetting& vetting : vettings_) {
    if (running_ >= maximumRunning || running_ + stuck_ >= maximumRunning + maximumStuck) return;
    if (vetting.state != State::waiting || busy_.contains(vetting.process)) continue;
    busy_.insert(vetting.process);
    ++running_;
    vetting.state = State::running;
    try {
      tasks_.runConcurrently(QualityOfService::userInitiated, [&vetting] {
        vetting.result = vetting.vetting.check(vetting.process);
        vetting.vetting.completions_.post(vetting);
      });
    } catch (const std::exception&) {
      completions_.post(vetting);  // Without a result.
    }
  }
}

void PeerVetting::finish(Vetting& finished) {
  std::list<Vetting> removed;
  removed.splice(removed.end(), vettings_, finished.position);
  --(finished.state == State::stuck ? stuck_ : running_);
  busy_.erase(finished.process);
  startWaiting();
  if (finished.handler) finished.handler(finished.result);
}

// The oldest come first and so expire first.
void PeerVetting::expire() {
  timer_.isSet = false;
  const auto now = Clock::now();
  std::list<Handler> handlers;
  for (auto vetting = vettings_.begin(); vetting != vettings_.end() && vetting->deadline <= now;) {
    const auto current = vetting++;
    if (current->state == State::stuck) continue;
    handlers.push_back(std::exchange(current->handler, nullptr));
    if (current->state == State::waiting) {
      vettings_.erase(current);
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

void PeerVetting::setTimer() {
  const auto next = std::ranges::find_if(
      vettings_, [](const Vetting& vetting) { return vetting.state != State::stuck; });
  if (timer_.isSet || next == vettings_.end()) return;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(next->deadline - Clock::now());
  tasks_.runAfter(std::max(left, std::chrono::milliseconds(0)), QualityOfService::utility,
                  [this] { completions_.post(timer_); });
  timer_.isSet = true;
}

}  // namespace tessaloom
