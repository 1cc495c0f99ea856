#pragma once

#include <string>
#include <string_view>

#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

/// Collects what a child writes to one stream, up to the runner's cap. One thread at a time.
class OutputStream {
 public:
  /// `pipe` does not block.
  explicit OutputStream(FileDescriptor pipe) : pipe_(std::move(pipe)) {}

  /// What to wait on for the next chunk; -1 once finished.
  int descriptor() const { return finished_ ? -1 : pipe_.get(); }

  /// Reads what is there, one chunk at most.
  void readChunk();

  /// Whether nothing more will be read: end of file, a read error, or more than the cap. Past the
  /// cap the pipe stays open, undrained, as long as this object lives.
  bool finished() const { return finished_; }

  /// All that the stream delivered; nothing of a stream that is not finished.
  std::string_view contents() const { return finished_ ? bytes_ : std::string_view(); }

 private:
  FileDescriptor pipe_;
  std::string bytes_;
  bool finished_ = false;
};

/// Feeds a child its standard input and then closes it. One thread at a time.
class InputFeed {
 public:
  /// `pipe` does not block; `text` must outlive the feed. Without text the pipe is closed at once.
  InputFeed(FileDescriptor pipe, std::string_view text);

  /// What to wait on for room to write; -1 once closed.
  int descriptor() const { return pipe_.get(); }

  /// Writes what the pipe takes; closes it after the last byte and on any error.
  void writeSome();

 private:
  FileDescriptor pipe_;
  std::string_view rest_;
};

}  // namespace tessaloom
