#include "TLFoundation/Pipe.h"

#include <fcntl.h>

#include <array>
#include <cerrno>

namespace tessaloom {

namespace {

/// 0, or why the descriptor could not be moved.
int moveAboveStandard(FileDescriptor& descriptor) {
  if (descriptor.get() > STDERR_FILENO) return 0;
  const int moved = ::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (moved < 0) return errno;
  descriptor = FileDescriptor(moved);
  return 0;
}

}  // namespace

std::expected<Pipe, int> makePipe(PipeMode mode) {
  const int flags = O_CLOEXEC | (mode == PipeMode::nonblocking ? O_NONBLOCK : 0);
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), flags) != 0) return std::unexpected(errno);
  Pipe pipe{FileDescriptor(ends[0]), FileDescriptor(ends[1])};
  for (FileDescriptor* end : {&pipe.readEnd, &pipe.writeEnd}) {
    if (const int error = moveAboveStandard(*end); error != 0) return std::unexpected(error);
  }
  return pipe;
}

}  // namespace tessaloom
