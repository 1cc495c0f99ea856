#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <memory>
#include <string_view>

#include "ChildProcess.h"
#include "ChildStreams.h"
#include "HelperCore/CLIInvocation.h"
#include "TLFoundation/FileDescriptor.h"
#include "TessaloomHelper/CLIRunner.h"

namespace tessaloom {

/// One child from its launch to its end, on the thread that runs it: feeds it, reads it, sends it
/// the kills that fall due, and reaps it. A child that still lives when the session goes is killed.
class ChildSession {
 public:
  using Clock = ChildProcess::Clock;

  /// Fails with an errno value: no descriptor, no process, or nothing that could be executed. The
  /// invocation must outlive the session.
  static std::expected<ChildSession, int> launch(const CLIInvocation& invocation);

  ChildSession(ChildSession&&) = default;
  ~ChildSession();

  const std::shared_ptr<ChildProcess>& child() const { return child_; }

  /// Waits until the child has exited, then reaps it; false when it still runs at `deadline`.
  bool awaitExit(Clock::time_point deadline);

  /// After the exit: reads until both streams are finished, at most for `grace`.
  void awaitReaders(std::chrono::milliseconds grace);

  /// How the child ended and what it left.
  RunResult result() const;

 private:
  struct Ends;

  ChildSession(std::shared_ptr<ChildProcess> child, Ends ends, std::string_view input);

  bool hasExited() const { return exited_ || (!exit_ && child_->hasExited()); }
  /// Waits until a stream or the child has news, at most until `until`, and takes it.
  void moveBytes(Clock::time_point until);
  Clock::time_point nextWake(Clock::time_point deadline) const;

  std::shared_ptr<ChildProcess> child_;
  FileDescriptor wake_;
  FileDescriptor exit_;  ///< Readable once the child has exited; the system may have none to give.
  OutputStream output_;
  OutputStream error_;
  InputFeed input_;
  bool exited_ = false;
  std::int32_t status_ = 0;
};

}  // namespace tessaloom
