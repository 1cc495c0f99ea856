#include "linux/CompletionQueue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

namespace tessaloom {

CompletionQueue::CompletionQueue() : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wake_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void CompletionQueue::post(Completion& completion) noexcept {
  completion.next_ = nullptr;
  const MutexLock lock(lock_);
  const bool wasEmpty = first_ == nullptr;
  *end_ = &completion;
  end_ = &completion.next_;
  // The post that makes the queue non-empty wakes the reader, which takes everything. It does so
  // under the lock: a write that came after that would leave the descriptor readable.
  if (!wasEmpty) return;
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
}

void CompletionQueue::runAll() {
  runTaken();
  if (isEmpty()) return;
  // Before the completions are taken: one that is posted afterwards wakes the reader again.
  std::uint64_t count = 0;
  [[maybe_unused]] const auto cleared = ::read(wake_.get(), &count, sizeof count);
  {
    const MutexLock lock(lock_);
    taken_ = std::exchange(first_, nullptr);
    end_ = &first_;
  }
  runTaken();
}

void CompletionQueue::runTaken() {
  while (taken_ != nullptr) std::exchange(taken_, taken_->next_)->run();
}

bool CompletionQueue::isEmpty() {
  const MutexLock lock(lock_);
  return first_ == nullptr;
}

}  // namespace tessaloom
