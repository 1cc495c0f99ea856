#include "linux/ThreadTasks.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>

namespace tessaloom {

ThreadTasks::ThreadTasks(Shortage shortage) : shortage_(shortage) {
  const MutexLock locked(lock_);
  if (const auto error = startWorker()) throw std::system_error(error);
}

ThreadTasks::~ThreadTasks() {
  join();
}

void ThreadTasks::runConcurrently(QualityOfService /*quality*/, std::function<void()> task) {
  Entries entry;
  entry.push_back({{}, std::move(task)});
  Entries refused;  // Destroyed after the lock is released.
  const MutexLock locked(lock_);
  const auto error = accept(std::move(entry));
  if (!error || shortage_ == Shortage::waits) return;
  refused.splice(refused.end(), accepted_, std::prev(accepted_.end()));
  throw std::system_error(error);
}

void ThreadTasks::runAfter(std::chrono::milliseconds delay, QualityOfService /*quality*/,
                           std::function<void()> task) {
  Entries entry;
  entry.push_back({Clock::now() + delay, std::move(task)});
  const MutexLock locked(lock_);
  const auto later = std::ranges::upper_bound(delayed_, entry.front().due, {}, &Entry::due);
  delayed_.splice(later, entry);
  keepTime();
  workChanged_.notify_all();
}

bool ThreadTasks::stop(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  {
    Entries dropped;  // Destroyed after the lock is released.
    MutexLock locked(lock_);
    dropped.swap(delayed_);
    while (!accepted_.empty() || idle_ < workers_.size()) {
      if (becameIdle_.wait_until(locked, deadline) == std::cv_status::timeout) return false;
    }
  }
  join();
  return true;
}

// The error when no thread could be started: then an existing worker takes the task once it is
// idle.
std::error_code ThreadTasks::accept(Entries entry) {
  std::error_code error;
  accepted_.splice(accepted_.end(), entry);
  if (accepted_.size() > idle_ && workers_.size() < maximumThreads && !stopping_) {
    error = startWorker();
  }
  workChanged_.notify_one();
  return error;
}

void ThreadTasks::acceptDue() {
  while (!stopping_ && !delayed_.empty() && delayed_.front().due <= Clock::now()) {
    Entries entry;
    entry.splice(entry.end(), delayed_, delayed_.begin());
    [[maybe_unused]] const auto error = accept(std::move(entry));
  }
}

// Idle workers keep the time of delayed tasks, so there has to be one.
void ThreadTasks::keepTime() {
  if (delayed_.empty() || idle_ > 0 || workers_.size() >= maximumThreads || stopping_) return;
  [[maybe_unused]] const auto error = startWorker();
}

std::error_code ThreadTasks::startWorker() try {
  Threads fresh(1);
  const auto self = fresh.begin();
  *self = std::thread([this, self] { work(self); });
  workers_.splice(workers_.end(), fresh);
  ++idle_;
  return {};
} catch (const std::system_error& error) {
  return error.code();
} catch (const std::bad_alloc&) {
  return std::make_error_code(std::errc::not_enough_memory);
}

// Whether there is a task to take; otherwise the worker is to exit.
bool ThreadTasks::awaitTask(MutexLock& locked) {
  const auto idleUntil = Clock::now() + idleTime;
  for (;;) {
    acceptDue();
    if (!accepted_.empty() || stopping_) break;
    if (idle_ == workers_.size()) becameIdle_.notify_all();
    const bool isNeeded = workers_.size() == 1 || (idle_ == 1 && !delayed_.empty());
    if (!isNeeded && Clock::now() >= idleUntil) break;
    auto wakeAt = isNeeded ? Clock::time_point::max() : idleUntil;
    if (!delayed_.empty()) wakeAt = std::min(wakeAt, delayed_.front().due);
    if (wakeAt == Clock::time_point::max()) {
      workChanged_.wait(locked);
    } else {
      workChanged_.wait_until(locked, wakeAt);
    }
  }
  return !accepted_.empty();
}

void ThreadTasks::work(Threads::iterator self) {
  Threads earlier;
  {
    MutexLock locked(lock_);
    while (awaitTask(locked)) {
      --idle_;
      Entries mine;
      mine.splice(mine.end(), accepted_, accepted_.begin());
      keepTime();
      locked.unlock();
      mine.front().task();
      mine.clear();  // What the task owns may take any lock in its destructor.
      locked.lock();
      ++idle_;
    }
    --idle_;
    if (stopping_) return;  // The destructor joins it.
    earlier.swap(exited_);
    exited_.splice(exited_.end(), workers_, self);
  }
  // A thread cannot join itself, so the next one to exit does it.
  for (std::thread& thread : earlier) thread.join();
}

void ThreadTasks::join() {
  Threads threads;
  {
    const MutexLock locked(lock_);
    stopping_ = true;
    workChanged_.notify_all();
    // From here on nobody else changes these lists; splicing keeps the workers' places in them.
    threads.splice(threads.end(), exited_);
    threads.splice(threads.end(), workers_);
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace tessaloom
