#pragma once

#include "TLFoundation/FileDescriptor.h"
#include "TLFoundation/Mutex.h"

namespace tessaloom {

/// How other threads hand results to the thread that owns the bus.
///
/// Posting allocates nothing and cannot fail: a letter is an object that its addressee made before
/// the work began and keeps until it was opened.
class BusMailbox {
 public:
  class Letter {
   public:
    virtual ~Letter() = default;
    /// Runs on the bus's thread; may destroy the letter.
    virtual void open() = 0;

   private:
    friend class BusMailbox;
    Letter* next_ = nullptr;
  };

  /// Throws std::system_error when there is no descriptor to be had.
  BusMailbox();

  /// Any thread. The letter must not be posted again before it was opened.
  void post(Letter& letter) noexcept TL_EXCLUDES(lock_);

  /// Opens what was posted, in that order. On the bus's thread.
  void openAll() TL_EXCLUDES(lock_);

  /// Becomes readable when there is something to open.
  int descriptor() const { return wake_.get(); }

 private:
  bool isEmpty() TL_EXCLUDES(lock_);

  FileDescriptor wake_;
  Mutex lock_;
  Letter* first_ TL_GUARDED_BY(lock_) = nullptr;
  Letter** end_ TL_GUARDED_BY(lock_) = &first_;
};

}  // namespace tessaloom
