#pragma once

#include <memory>
#include <mutex>

namespace tessaloom {

/// A value that one caller at a time may use. Safe from any thread.
template <class Value>
class Exclusive {
  struct Unlock {
    std::mutex* mutex;
    void operator()(Value* /*value*/) const { mutex->unlock(); }
  };

 public:
  /// Gives the value back when it goes out of scope, on the thread that took it.
  using Loan = std::unique_ptr<Value, Unlock>;

  /// Waits until the value is free.
  Loan take() {
    mutex_.lock();
    return {&value_, Unlock{&mutex_}};
  }
  /// Empty while another caller has the value.
  Loan tryTake() {
    const bool taken = mutex_.try_lock();
    return {taken ? &value_ : nullptr, Unlock{&mutex_}};
  }

 private:
  std::mutex mutex_;
  Value value_;
};

}  // namespace tessaloom
