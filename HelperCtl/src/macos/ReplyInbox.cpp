#include "ReplyInbox.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace tessaloom {

ReplyInbox::ReplyInbox() {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  for (const int end : ends) {
    ::fcntl(end, F_SETFD, FD_CLOEXEC);
    ::fcntl(end, F_SETFL, O_NONBLOCK);
  }
  readEnd_ = ends[0];
  writeEnd_ = ends[1];
}

ReplyInbox::~ReplyInbox() {
  ::close(readEnd_);
  ::close(writeEnd_);
}

void ReplyInbox::put(std::uint64_t call, CallReply reply) {
  const MutexLock locked(lock_);
  const bool wasEmpty = items_.empty();
  items_.push_back({call, std::move(reply)});
  // One byte stands for everything that waits.
  if (wasEmpty) [[maybe_unused]]
    const ssize_t written = ::write(writeEnd_, "", 1);
}

std::vector<ReplyInbox::Item> ReplyInbox::take() {
  const MutexLock locked(lock_);
  char byte = 0;
  if (!items_.empty()) [[maybe_unused]]
    const ssize_t count = ::read(readEnd_, &byte, 1);
  return std::exchange(items_, {});
}

}  // namespace tessaloom
