#pragma once

#include <optional>

#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

/// The signals by which a user, a terminal, a session or a service manager ends a process: all that
/// end one by default, except SIGKILL and those that report a fault in the process. They are read
/// from a descriptor instead, so that the helper can end in order.
///
/// SIGHUP, SIGINT and SIGQUIT stay ignored where they were ignored at the start (nohup, a shell's
/// background job). SIGPIPE and SIGXFSZ are ignored: a write fails instead. SIGCHLD gets its
/// default.
class StopSignals {
 public:
  /// Blocks the signals in this thread and in those that it starts. Throws std::system_error when
  /// no descriptor is available.
  StopSignals();

  /// Becomes readable when one has come.
  int descriptor() const { return descriptor_.get(); }

  /// Takes the next signal that has come; nullopt if there is none.
  std::optional<int> next() const;

 private:
  FileDescriptor descriptor_;
};

}  // namespace tessaloom
