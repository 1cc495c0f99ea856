#pragma once

#include <sys/types.h>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// One end of a connection between two processes, which carries messages of several parts. Stands
/// for the Mach ports; a Mach service is a socket in the folder that DOUBLE_LAUNCHD names.
class Wire {
 public:
  using Message = std::vector<std::string>;

  explicit Wire(int descriptor) : descriptor_(descriptor) {}
  ~Wire();
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  /// A connection to a service; -1 when launchd knows no such name.
  static int connect(const std::string& service);

  /// False when the other end has gone. Safe from any thread.
  bool send(const Message& message);
  /// Blocks; for one thread. Nothing once either end has gone.
  std::optional<Message> receive();
  /// Ends both directions at both ends.
  void end();

  pid_t peer() const;

 private:
  const int descriptor_;
  std::mutex lock_;
};

/// Appends a line to the file that DOUBLE_LOG names, for the test to read.
void logLine(const std::string& line);
