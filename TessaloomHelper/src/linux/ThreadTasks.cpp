#include "linux/ThreadTasks.h"

#include <algorithm>
#include <new>
#include <utility>

namespace tessaloom {

ThreadTasks::ThreadTasks() {
  timekeeper_ = std::thread([this] { keepTime(); });
  std::error_code error;
  {
    const MutexLock locked(lock_);
    error = startWorker();
  }
  if (!error) return;
  stop();
  throw std::system_error(error);
}

ThreadTasks::~ThreadTasks() {
  stop();
}

void ThreadTasks::runConcurrently(QualityOfService /*quality*/, std::function<void()> task) {
  Entries entry;
  entry.push_back({{}, std::move(task)});
  const MutexLock locked(lock_);
  accept(std::move(entry));
}

void ThreadTasks::runAfter(std::chrono::milliseconds delay, QualityOfService /*quality*/,
                           std::function<void()> task) {
  Entries entry;
  entry.push_back({Clock::now() + delay, std::move(task)});
  const MutexLock locked(lock_);
  const auto later = std::ranges::upper_bound(delayed_, entry.front().due, {}, &Entry::due);
  delayed_.splice(later, entry);
  timesChanged_.notify_one();
}

void ThreadTasks::accept(Entries entry) {
  accepted_.splice(accepted_.end(), entry);
  if (accepted_.size() > idle_ && workers_.size() < maximumThreads && !stopping_) {
    // When there is none to be had, a worker that exists takes the task once it is free.
    [[maybe_unused]] const auto error = startWorker();
  }
  taskAccepted_.notify_one();
}

std::error_code ThreadTasks::startWorker() try {
  Threads fresh(1);
  const auto self = fresh.begin();
  *self = std::thread([this, self] { work(self); });
  workers_.splice(workers_.end(), fresh);
  return {};
} catch (const std::system_error& error) {
  return error.code();
} catch (const std::bad_alloc&) {
  return std::make_error_code(std::errc::not_enough_memory);
}

/// Whether there is a task to take; otherwise the worker is to leave.
bool ThreadTasks::awaitTask(MutexLock& locked) {
  ++idle_;
  bool idledLong = false;
  while (accepted_.empty() && !stopping_) {
    const bool isLast = workers_.size() == 1;
    if (idledLong && !isLast) break;
    if (isLast) {
      taskAccepted_.wait(locked);
    } else {
      idledLong = taskAccepted_.wait_for(locked, idleTime) == std::cv_status::timeout;
    }
  }
  --idle_;
  return !accepted_.empty();
}

void ThreadTasks::work(Threads::iterator self) {
  Threads earlier;
  {
    MutexLock locked(lock_);
    while (awaitTask(locked)) {
      Entries mine;
      mine.splice(mine.end(), accepted_, accepted_.begin());
      locked.unlock();
      mine.front().task();
      mine.clear();  // What the task holds may take any lock as it goes.
      locked.lock();
    }
    if (stopping_) return;  // Joined where it stands.
    earlier.swap(departed_);
    departed_.splice(departed_.end(), workers_, self);
  }
  // A thread cannot join itself, so the next one to leave does it.
  for (std::thread& thread : earlier) thread.join();
}

void ThreadTasks::keepTime() {
  MutexLock locked(lock_);
  while (!stopping_) {
    if (delayed_.empty()) {
      timesChanged_.wait(locked);
    } else if (const auto due = delayed_.front().due; due > Clock::now()) {
      timesChanged_.wait_until(locked, due);
    } else {
      Entries entry;
      entry.splice(entry.end(), delayed_, delayed_.begin());
      accept(std::move(entry));
    }
  }
}

void ThreadTasks::stop() {
  Threads threads;
  {
    const MutexLock locked(lock_);
    stopping_ = true;
    taskAccepted_.notify_all();
    timesChanged_.notify_one();
  }
  timekeeper_.join();
  {
    // From here on nobody else changes these lists; splicing keeps the workers' places in them.
    const MutexLock locked(lock_);
    threads.splice(threads.end(), departed_);
    threads.splice(threads.end(), workers_);
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace tessaloom
