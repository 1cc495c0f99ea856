#include "linux/BusMailbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

namespace tessaloom {

BusMailbox::BusMailbox() : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!wake_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

void BusMailbox::post(Letter& letter) noexcept {
  letter.next_ = nullptr;
  {
    const MutexLock lock(lock_);
    *end_ = &letter;
    end_ = &letter.next_;
  }
  // A full counter (EAGAIN) means that the reader is awake already.
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
}

void BusMailbox::openAll() {
  if (isEmpty()) return;
  // Before the letters are taken: one that is posted in between wakes the reader once too often
  // rather than never.
  std::uint64_t count = 0;
  [[maybe_unused]] const auto cleared = ::read(wake_.get(), &count, sizeof count);
  Letter* letter = nullptr;
  {
    const MutexLock lock(lock_);
    letter = std::exchange(first_, nullptr);
    end_ = &first_;
  }
  while (letter != nullptr) std::exchange(letter, letter->next_)->open();
}

bool BusMailbox::isEmpty() {
  const MutexLock lock(lock_);
  return first_ == nullptr;
}

}  // namespace tessaloom
