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
  const MutexLock lock(lock_);
  *end_ = &letter;
  end_ = &letter.next_;
  // Under the lock: once the letter is out of it, the reader may be gone for good. A full counter
  // (EAGAIN) means that the reader is awake already.
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(wake_.get(), &one, sizeof one);
}

void BusMailbox::openAll() {
  Letter* letter = nullptr;
  {
    const MutexLock lock(lock_);
    if (first_ == nullptr) return;
    std::uint64_t count = 0;
    [[maybe_unused]] const auto cleared = ::read(wake_.get(), &count, sizeof count);
    letter = std::exchange(first_, nullptr);
    end_ = &first_;
  }
  while (letter != nullptr) std::exchange(letter, letter->next_)->open();
}

}  // namespace tessaloom
