#pragma once

#include <sys/resource.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "HelperCore/CLIInvocation.h"
#include "HelperCore/ChildProcess.h"
#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

/// Collects what a child writes to one stream, up to a cap. One thread at a time.
class StreamReader {
 public:
  static constexpr std::size_t cap = 4'194'304;     ///< Bytes past which reading stops.
  static constexpr std::size_t chunkSize = 65'536;  ///< Bytes per read, at most.

  explicit StreamReader(FileDescriptor pipe) : pipe_(std::move(pipe)) {}

  /// What to wait on for the next chunk; -1 once finished.
  int descriptor() const { return finished_ ? -1 : pipe_.get(); }

  /// Reads what is there, one chunk at most. Only an empty pipe that blocks is waited for.
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

/// Writes a child's standard input and then closes it. One thread at a time.
class StdinWriter {
 public:
  /// `pipe` does not block; `text` must outlive the writer. Without text the pipe is closed at
  /// once.
  StdinWriter(FileDescriptor pipe, std::string_view text);

  /// What to wait on for room to write; -1 once closed.
  int descriptor() const { return pipe_.get(); }

  /// Writes what the pipe takes; closes it after the last byte and on any error.
  void writeSome();

 private:
  FileDescriptor pipe_;
  std::string_view rest_;
};

/// One child with its three streams, from its launch to its end, on the thread that runs it: feeds
/// it, reads it, sends it the signals that are due, and reaps it. A child that still runs when the
/// object is destroyed is killed.
///
/// The process must leave SIGCHLD at its default and, where a child gets input, ignore SIGPIPE.
class ChildRun {
 public:
  using Clock = ChildProcess::Clock;

  static constexpr std::chrono::seconds readersGrace{5};  ///< For output after the child's exit.

  /// Fails with an errno value: no descriptor, no process, or nothing that could be executed. The
  /// invocation must outlive the object. See `SpawnPlatform::Program` for the limit.
  static std::expected<ChildRun, int> launch(const CLIInvocation& invocation,
                                             const std::optional<rlimit>& descriptorLimit);

  ChildRun(ChildRun&&) = default;
  ~ChildRun();

  const std::shared_ptr<ChildProcess>& child() const { return child_; }

  /// Waits until the child has exited, then reaps it; false when it still runs at `deadline`. The
  /// child gets none of its input before this.
  bool awaitExit(Clock::time_point deadline);

  /// After the exit: reads until both streams are finished, at most for `readersGrace`.
  void awaitReaders();

  /// How the child ended, once it has.
  const ChildEnd& end() const { return end_; }

  const StreamReader& standardOutput() const { return output_; }
  const StreamReader& standardError() const { return error_; }

 private:
  ChildRun(std::shared_ptr<ChildProcess> child, FileDescriptor wake, FileDescriptor output,
           FileDescriptor error, StdinWriter input);

  bool hasExited() const { return !exit_ && child_->hasExited(); }
  /// Waits until a stream is ready or the child exits, at most until `until`, and handles that.
  void moveBytes(Clock::time_point until);
  Clock::time_point nextWake(Clock::time_point deadline) const;

  std::shared_ptr<ChildProcess> child_;
  FileDescriptor wake_;
  /// Readable once the child has exited. The child is asked at intervals where the system has none
  /// to give, and once it was readable.
  FileDescriptor exit_;
  StreamReader output_;
  StreamReader error_;
  StdinWriter input_;
  ChildEnd end_{};
};

}  // namespace tessaloom
