#include "ChildStreams.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <utility>

#include "TessaloomHelper/CLIRunner.h"

namespace tessaloom {

namespace {

bool isPassing(int error) {
  return error == EINTR || error == EAGAIN || error == EWOULDBLOCK;
}

}  // namespace

void OutputStream::readChunk() {
  std::array<char, CLIRunner::chunkSize> chunk;
  const auto count = ::read(pipe_.get(), chunk.data(), chunk.size());
  if (count < 0 && isPassing(errno)) return;
  if (count <= 0) {
    finished_ = true;
    pipe_.reset();
    return;
  }
  bytes_.append(chunk.data(), static_cast<std::size_t>(count));
  finished_ = bytes_.size() > CLIRunner::outputCap;
}

InputFeed::InputFeed(FileDescriptor pipe, std::string_view text)
    : pipe_(std::move(pipe)), rest_(text) {
  if (rest_.empty()) pipe_.reset();
}

void InputFeed::writeSome() {
  const auto count = ::write(pipe_.get(), rest_.data(), rest_.size());
  if (count < 0 && isPassing(errno)) return;
  if (count > 0) rest_.remove_prefix(static_cast<std::size_t>(count));
  if (count < 0 || rest_.empty()) pipe_.reset();
}

}  // namespace tessaloom
