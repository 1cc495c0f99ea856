#include "TLFoundation/Pipe.h"

#include <fcntl.h>

#include <array>
#include <cerrno>

namespace tessaloom {

namespace {

/// A close-on-exec duplicate above the standard descriptors; none with errno set otherwise.
FileDescriptor privateDuplicate(const FileDescriptor& end, PipeMode mode) {
  FileDescriptor copy(::fcntl(end.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  if (copy && mode == PipeMode::nonblocking && ::fcntl(copy.get(), F_SETFL, O_NONBLOCK) != 0) {
    return {};
  }
  return copy;
}

}  // namespace

std::expected<Pipe, int> makePipe(PipeMode mode) {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) return std::unexpected(errno);
  const FileDescriptor readEnd(ends[0]);
  const FileDescriptor writeEnd(ends[1]);
  // pipe2 is missing here. Between pipe and this a spawn of another thread could copy the ends, but
  // every spawn of this process closes what it does not name.
  Pipe pipe{privateDuplicate(readEnd, mode), FileDescriptor()};
  if (!pipe.readEnd) return std::unexpected(errno);
  pipe.writeEnd = privateDuplicate(writeEnd, mode);
  if (!pipe.writeEnd) return std::unexpected(errno);
  return pipe;
}

}  // namespace tessaloom
