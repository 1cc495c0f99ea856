#pragma once

#include "TLFoundation/FileDescriptor.h"
#include "TLFoundation/Mutex.h"

namespace tessaloom {

/// How other threads hand results to the thread that owns the bus.
///
/// Posting allocates nothing and cannot fail: a completion is an object that the bus's thread made
/// before the work began and keeps until it has run.
class CompletionQueue {
 public:
  class Completion {
   public:
    virtual ~Completion() = default;
    /// Runs on the bus's thread; may destroy the completion.
    virtual void run() = 0;

   private:
    friend class CompletionQueue;
    Completion* next_ = nullptr;
  };

  /// Throws std::system_error when no descriptor is available.
  CompletionQueue();

  /// Any thread. A completion must not be posted again before it has run.
  void post(Completion& completion) noexcept TL_EXCLUDES(lock_);

  /// Runs what has been posted, in that order. On the bus's thread. After an exception of one the
  /// next call goes on with those behind it.
  void runAll() TL_EXCLUDES(lock_);

  /// Becomes readable when something has been posted to an empty queue.
  int descriptor() const { return wake_.get(); }

 private:
  bool isEmpty() TL_EXCLUDES(lock_);
  void runTaken();

  FileDescriptor wake_;
  Mutex lock_;
  Completion* first_ TL_GUARDED_BY(lock_) = nullptr;
  Completion** end_ TL_GUARDED_BY(lock_) = &first_;
  Completion* taken_ = nullptr;  ///< Those that the bus's thread has taken and not run yet.
};

}  // namespace tessaloom
