#pragma once

#include <mutex>

// Clang's thread-safety annotations (https://clang.llvm.org/docs/ThreadSafetyAnalysis.html); other
// compilers see nothing. Each guarded field names the mutex that guards it, and the clang builds
// check that the code holds it.
#if defined(__clang__)
#define TL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TL_THREAD_ANNOTATION(x)
#endif

#define TL_CAPABILITY(x) TL_THREAD_ANNOTATION(capability(x))
#define TL_SCOPED_CAPABILITY TL_THREAD_ANNOTATION(scoped_lockable)
#define TL_GUARDED_BY(x) TL_THREAD_ANNOTATION(guarded_by(x))
#define TL_REQUIRES(...) TL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TL_EXCLUDES(...) TL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define TL_ACQUIRE(...) TL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TL_RELEASE(...) TL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace tessaloom {

/// A std::mutex that the analysis recognizes. Waits use std::condition_variable_any over a
/// MutexLock.
class TL_CAPABILITY("mutex") Mutex {
 public:
  void lock() TL_ACQUIRE() { mutex_.lock(); }
  void unlock() TL_RELEASE() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

/// Holds a Mutex for a scope; may be released and taken again within it.
class TL_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) TL_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() TL_RELEASE() {
    if (held_) mutex_.unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void lock() TL_ACQUIRE() {
    mutex_.lock();
    held_ = true;
  }
  void unlock() TL_RELEASE() {
    held_ = false;
    mutex_.unlock();
  }

 private:
  Mutex& mutex_;
  bool held_ = true;
};

}  // namespace tessaloom
