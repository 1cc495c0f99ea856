#pragma once

namespace tessaloom {

/// Turns SIGINT and SIGTERM into something to poll for, for as long as it lives. One at a time.
class Interrupts {
 public:
  /// Throws std::system_error.
  Interrupts();
  ~Interrupts();
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

  /// Readable when a signal came that `take` has not counted yet.
  int descriptor() const;

  /// How many signals have come since the last call.
  int take();
};

}  // namespace tessaloom
