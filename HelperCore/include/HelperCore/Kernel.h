#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "TLFoundation/Instant.h"

namespace tessaloom {

/// When a process started, by the wall clock. Equal at every reading for as long as the process
/// and the helper live, whatever happens to the clock meanwhile.
struct ProcessStartTime {
  std::int64_t startSec = 0;   ///< Whole seconds since the Unix epoch.
  std::int32_t startUSec = 0;  ///< The microseconds beyond, 0 to 999,999.

  friend auto operator<=>(const ProcessStartTime&, const ProcessStartTime&) = default;
};

/// One process as the kernel's table has it.
struct ProcessRecord {
  std::int32_t pid = 0;
  std::int32_t parentPID = 0;
  std::uint32_t owner = 0;  ///< The effective user id.
  ProcessStartTime start;
  std::string terminal;             ///< Device name without a directory; empty for none.
  std::uint64_t residentBytes = 0;  ///< 0 when it cannot be read, or the process has exited.
  std::string name;  ///< The short command name: any bytes; what follows a NUL does not count.
};

/// One socket as the kernel describes it.
struct SocketInfo {
  enum class Kind : std::uint8_t {
    other,     ///< Unix domain, other families.
    internet,  ///< Any socket of the internet families but TCP; `protocol` says which.
    tcp,
  };
  enum class TCPState : std::uint8_t { other, listening };
  static constexpr std::uint8_t ipv4 = 1;  ///< A bit of `versionFlags`.
  static constexpr std::uint8_t ipv6 = 2;  ///< A bit of `versionFlags`.

  Kind kind = Kind::other;
  std::int32_t protocol = 0;  ///< An IPPROTO_ number.
  TCPState tcpState = TCPState::other;
  std::uint32_t localPort = 0;                  ///< Network byte order, in the low 16 bits.
  std::uint8_t versionFlags = 0;                ///< `ipv4`, `ipv6`, both or neither.
  std::array<std::uint8_t, 16> localAddress{};  ///< An IPv4 address is the last 4 bytes.

  friend bool operator==(const SocketInfo&, const SocketInfo&) = default;
};

/// A process that has sockets open.
struct SocketHolder {
  std::int32_t pid = 0;
  std::string name;  ///< As ProcessRecord::name; empty when unknown.
  /// In the order of its descriptors, once for each of them. Those that are known to give no row
  /// (Unix-domain sockets, connections) may be left out.
  std::vector<SocketInfo> sockets;
};

/// One process, opened so that a check and the signal that follows it concern the same one.
///
/// Where the kernel can pin a process (a pidfd), it stays pinned for the life of this object; where
/// it cannot, `signal` sends to whatever process has the pid. Used by one thread.
class ProcessHandle {
 public:
  virtual ~ProcessHandle() = default;

  /// The start time that the process list shows for this process. nullopt when there is no such
  /// process anymore or it cannot be read.
  virtual std::optional<ProcessStartTime> startTime() = 0;

  /// Sends a POSIX signal. 0, or the errno value of the refusal.
  virtual int signal(std::int32_t number) = 0;
};

/// The queries that the process logic makes to the operating system. Filtering, ordering,
/// classification and the decision whether to signal are above it and the same everywhere.
///
/// Safe from any thread. One for the whole process. A query that fails returns nothing, and what
/// cannot be read, or no longer exists, is missing from it; an exception is thrown only if memory
/// runs out.
///
/// What an implementation keeps between calls is not seen in a result, with one exception: sockets
/// of a process that shares its table of descriptors with another process may be up to two minutes
/// old, unless that is its parent or child and the kernel says so (SocketHolders.h).
class Kernel {
 public:
  virtual ~Kernel() = default;

  /// The real user id of this process.
  virtual std::uint32_t userID() const = 0;

  /// The wall clock, which may be set back or forward at any moment.
  virtual Instant wallClockTime() const = 0;

  /// The current time by the clock of the processes' start times: an age is this minus the start.
  /// On Linux it is right even after the wall clock was set; macOS has only that one.
  virtual Instant processClockTime() const = 0;

  /// The process table, in the kernel's order. Processes of owners other than `owner` may be left
  /// out.
  virtual std::vector<ProcessRecord> fetchAllProcessRecords(std::uint32_t owner) = 0;

  /// The processes of `owner` that have sockets open, in the kernel's order. Others may be listed
  /// with no sockets.
  virtual std::vector<SocketHolder> fetchSocketHolders(std::uint32_t owner) = 0;

  /// Never null. For a pid without a process it has no start time.
  virtual std::unique_ptr<ProcessHandle> openProcess(std::int32_t pid) = 0;

  /// Closes all descriptors kept between calls. Must not be called on a thread that serves others:
  /// it waits for a listing that uses them, some hundredths of a second, and as long again for each
  /// other network namespace with sockets. Call it when a descriptor was refused (EMFILE, ENFILE),
  /// before the next try. The next listing keeps descriptors again.
  virtual void releaseKeptDescriptors() = 0;
};

/// The kernel that this program runs on; implemented once for each platform.
std::unique_ptr<Kernel> makeSystemKernel();

}  // namespace tessaloom
