#pragma once

#include <atomic>
#include <memory>

namespace tessaloom::linux_kernel {

/// A value that one caller at a time may use, and nobody waits for.
template <class Value>
class OneUser {
  struct GiveBack {
    std::atomic<bool>* inUse;
    void operator()(Value* /*value*/) const { inUse->store(false, std::memory_order_release); }
  };

 public:
  /// Gives the value back when it goes out of scope.
  using Loan = std::unique_ptr<Value, GiveBack>;

  /// Empty while another caller has the value.
  Loan tryTake() {
    const bool taken = inUse_.exchange(true, std::memory_order_acquire);
    return {taken ? nullptr : &value_, GiveBack{&inUse_}};
  }

 private:
  std::atomic<bool> inUse_ = false;
  Value value_;
};

}  // namespace tessaloom::linux_kernel
