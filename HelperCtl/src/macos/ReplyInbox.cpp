#include "ReplyInbox.h"

#include <unistd.h>

#include <system_error>
#include <utility>

namespace tessaloom {

ReplyInbox::ReplyInbox() {
  auto pipe = makePipe(PipeMode::nonblocking);
  if (!pipe) throw std::system_error(pipe.error(), std::generic_category(), "pipe");
  wake_ = std::move(*pipe);
}

void ReplyInbox::put(std::uint64_t call, CallReply reply) {
  const MutexLock locked(lock_);
  const bool wasEmpty = items_.empty();
  items_.push_back({call, std::move(reply)});
  // One byte announces everything that waits.
  if (wasEmpty) [[maybe_unused]]
    const ssize_t written = ::write(wake_.writeEnd.get(), "", 1);
}

std::vector<ReplyInbox::Item> ReplyInbox::take() {
  const MutexLock locked(lock_);
  char byte = 0;
  if (!items_.empty()) [[maybe_unused]]
    const ssize_t count = ::read(wake_.readEnd.get(), &byte, 1);
  return std::exchange(items_, {});
}

}  // namespace tessaloom
