#pragma once

#include <optional>

namespace tessaloom {

/// Turns SIGINT, SIGTERM, SIGHUP and SIGQUIT into a descriptor to poll, for as long as it lives. A
/// signal that the process was started to ignore, as under nohup(1), stays ignored. One at a time.
class TerminationSignals {
 public:
  /// Throws std::system_error.
  TerminationSignals();
  ~TerminationSignals();
  TerminationSignals(const TerminationSignals&) = delete;
  TerminationSignals& operator=(const TerminationSignals&) = delete;

  /// Readable when a signal has come that `next` has not returned yet.
  int descriptor() const;

  /// The number of the next signal that has come; nullopt if there is none.
  std::optional<int> next();

  /// Stops catching signals, and returns the next one as `next` does. A later one has its usual
  /// effect.
  std::optional<int> stop();
};

/// Ends this process by a signal, as if it had not been caught, so that a shell that runs this in a
/// loop also ends the loop.
[[noreturn]] void dieBySignal(int number);

}  // namespace tessaloom
