#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <system_error>
#include <thread>

#include "TLFoundation/Mutex.h"
#include "TessaloomHelper/Tasks.h"

namespace tessaloom {

/// A pool of threads that grows when a task finds none idle and shrinks when threads stay idle. The
/// quality of service makes no difference.
///
/// Up to `maximumThreads` tasks run at once; further tasks wait in the order in which they came.
/// When the system refuses a thread, tasks wait for the ones there are, of which one always exists,
/// unless the pool is one that refuses: then runConcurrently throws std::system_error, for tasks
/// that may take minutes. Delayed tasks always wait. An idle pool sleeps: it wakes for a task or a
/// delay that has passed, never on its own.
///
/// Destroying it starts no delayed task anymore, runs every task that was accepted to its end and
/// joins the threads. Tasks may hand in others meanwhile; delayed ones are then dropped.
class ThreadTasks final : public Tasks {
 public:
  static constexpr std::size_t maximumThreads = 96;
  /// After that an idle thread exits, unless it is the last.
  static constexpr std::chrono::seconds idleTime{2};

  enum class Shortage : std::uint8_t { waits, refuses };

  /// Throws std::system_error when the system gives no thread to start with.
  explicit ThreadTasks(Shortage shortage = Shortage::waits);
  ~ThreadTasks() override;
  ThreadTasks(const ThreadTasks&) = delete;
  ThreadTasks& operator=(const ThreadTasks&) = delete;

  void runConcurrently(QualityOfService quality, std::function<void()> task) override
      TL_EXCLUDES(lock_);
  void runAfter(std::chrono::milliseconds delay, QualityOfService quality,
                std::function<void()> task) override TL_EXCLUDES(lock_);

  /// Does what destruction does, unless tasks still run after `limit`: then it returns false, and
  /// only delayed tasks have been dropped. Nothing must be handed in meanwhile or later.
  bool stop(std::chrono::milliseconds limit) TL_EXCLUDES(lock_);

 private:
  using Clock = std::chrono::steady_clock;
  using Threads = std::list<std::thread>;

  struct Entry {
    Clock::time_point due;
    std::function<void()> task;
  };
  /// Entries move between lists by splicing, so a task once accepted needs no more memory.
  using Entries = std::list<Entry>;

  std::error_code accept(Entries entry) TL_REQUIRES(lock_);
  void acceptDue() TL_REQUIRES(lock_);
  std::error_code startWorker() TL_REQUIRES(lock_);
  void keepTime() TL_REQUIRES(lock_);
  bool awaitTask(MutexLock& locked) TL_REQUIRES(lock_);
  void work(Threads::iterator self) TL_EXCLUDES(lock_);
  void join() TL_EXCLUDES(lock_);

  const Shortage shortage_;
  Mutex lock_;
  std::condition_variable_any workChanged_;
  std::condition_variable_any becameIdle_;
  Entries accepted_ TL_GUARDED_BY(lock_);
  Entries delayed_ TL_GUARDED_BY(lock_);  ///< In the order in which they fall due.
  Threads workers_ TL_GUARDED_BY(lock_);
  Threads exited_ TL_GUARDED_BY(lock_);        ///< Idle ones that have not been joined yet.
  std::size_t idle_ TL_GUARDED_BY(lock_) = 0;  ///< Workers that run no task.
  bool stopping_ TL_GUARDED_BY(lock_) = false;
};

}  // namespace tessaloom
