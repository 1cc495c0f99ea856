#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "TLFoundation/HashFields.h"
#include "TLFoundation/Instant.h"

namespace tessaloom {

/// A process identifier that may be signaled: always greater than 0. On the wire a bare number.
class ProcessID {
 public:
  /// Throws HelperDTOError::invalidPID.
  explicit ProcessID(std::int32_t value);

  std::int32_t value() const { return value_; }

  friend auto operator<=>(const ProcessID&, const ProcessID&) = default;
  std::size_t hash() const noexcept { return hashFields(value_); }

 private:
  std::int32_t value_;
};

/// The signals that a client may ask for, with their POSIX numbers, which are their wire values.
enum class Signal : std::int32_t { interrupt = 2, kill = 9, terminate = 15 };
inline constexpr std::array allSignals{Signal::interrupt, Signal::kill, Signal::terminate};

struct KillRequest {
  ProcessID pid;
  Signal signal;

  friend bool operator==(const KillRequest&, const KillRequest&) = default;
};

/// The reply of the kill and of the cancel method. `message` has no key on the wire when absent.
struct KillResult {
  bool succeeded;
  std::optional<std::string> message = std::nullopt;

  friend bool operator==(const KillResult&, const KillResult&) = default;
};

/// One row of the process listing. Its texts are cleaned to one line and cut whenever a row is
/// made.
class ProcessSample {
 public:
  static constexpr std::int64_t ttyLimit = 32;       ///< Unicode scalars.
  static constexpr std::int64_t commandLimit = 256;  ///< Unicode scalars.

  ProcessSample(std::int32_t pid, std::int32_t parentPID, const std::optional<std::string>& tty,
                Instant startedAt, std::int64_t elapsedSeconds, std::int64_t residentBytes,
                std::string_view command);

  std::int32_t pid() const { return pid_; }
  std::int32_t parentPID() const { return parentPID_; }
  const std::optional<std::string>& tty() const { return tty_; }
  Instant startedAt() const { return startedAt_; }
  std::int64_t elapsedSeconds() const { return elapsedSeconds_; }
  std::int64_t residentBytes() const { return residentBytes_; }
  const std::string& command() const { return command_; }

  friend bool operator==(const ProcessSample&, const ProcessSample&) = default;
  std::size_t hash() const noexcept {
    return hashFields(pid_, parentPID_, tty_, startedAt_.time_since_epoch().count(),
                      elapsedSeconds_, residentBytes_, command_);
  }

 private:
  std::int32_t pid_;
  std::int32_t parentPID_;
  std::optional<std::string> tty_;
  Instant startedAt_;
  std::int64_t elapsedSeconds_;
  std::int64_t residentBytes_;
  std::string command_;
};

/// One row of the port listing. Its texts are cleaned to one line and cut whenever a row is made.
class PortSample {
 public:
  static constexpr std::int64_t transportLimit = 8;      ///< Unicode scalars.
  static constexpr std::int64_t processNameLimit = 256;  ///< Unicode scalars.
  static constexpr std::int64_t addressLimit = 64;       ///< Unicode scalars.

  PortSample(std::int64_t port, std::string_view transport, std::int32_t pid,
             std::string_view processName, std::string_view address);

  std::int64_t port() const { return port_; }
  const std::string& transport() const { return transport_; }
  std::int32_t pid() const { return pid_; }
  const std::string& processName() const { return processName_; }
  const std::string& address() const { return address_; }

  /// transport, address, port and pid joined by slashes, as in tcp/127.0.0.1/8080/4242.
  std::string id() const;

  friend auto operator<=>(const PortSample&, const PortSample&) = default;
  std::size_t hash() const noexcept {
    return hashFields(port_, transport_, pid_, processName_, address_);
  }

 private:
  std::int64_t port_;
  std::string transport_;
  std::int32_t pid_;
  std::string processName_;
  std::string address_;
};

}  // namespace tessaloom
