#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

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
  std::uint64_t residentBytes = 0;  ///< 0 when it cannot be read, or the process is gone by now.
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

/// One process, held so that a check and the signal that follows it concern the same one.
///
/// Where the kernel can pin a process (a pidfd), it stays pinned for the life of this object; where
/// it cannot, `signal` goes to the number. Used by one thread.
class HeldProcess {
 public:
  virtual ~HeldProcess() = default;

  /// The start time that the process list shows for this process. Nothing when there is no such
  /// process any more or it cannot be read.
  virtual std::optional<ProcessStartTime> startTime() = 0;

  /// Sends a POSIX signal. 0, or the errno value of the refusal.
  virtual int signal(std::int32_t number) = 0;
};

/// The sockets of the user's processes, for the length of one listing. Used by one thread.
///
/// Nothing here fails loudly: what cannot be read, or is gone by now, is empty or absent.
class SocketTable {
 public:
  virtual ~SocketTable() = default;

  /// The processes of the user, all at least 1, in the kernel's order.
  virtual std::vector<std::int32_t> listOwnPIDs() = 0;

  /// The descriptors of a process that are sockets, in the kernel's order. Those that are known to
  /// give no row (Unix-domain sockets, connections) may be left out.
  virtual std::vector<std::int32_t> socketDescriptors(std::int32_t pid) = 0;

  /// The name of a process as the kernel has it, bytes as in ProcessRecord::name; empty when
  /// unknown. Asked once for a process that has socket descriptors.
  virtual std::string readProcessName(std::int32_t pid) = 0;

  /// The socket behind a descriptor that `socketDescriptors` returned for this process, which was
  /// the last one asked about. Nothing when it was closed meanwhile.
  virtual std::optional<SocketInfo> socketInfo(std::int32_t pid, std::int32_t descriptor) = 0;
};

/// What the process logic asks of the operating system. Filtering, ordering, classification and
/// the rule of the kill are above it and the same everywhere.
///
/// Safe from any thread; no call waits for another. One for the whole process: what an
/// implementation keeps between calls must not be seen in a result.
class Kernel {
 public:
  virtual ~Kernel() = default;

  /// The real user id of this process.
  virtual std::uint32_t userID() const = 0;

  /// The process table, in the kernel's order; empty when it cannot be read. Processes of owners
  /// other than `owner` may be left out.
  virtual std::vector<ProcessRecord> fetchAllProcessRecords(std::uint32_t owner) = 0;

  /// Never null. A pid that names no process gives one without a start time.
  virtual std::unique_ptr<HeldProcess> holdProcess(std::int32_t pid) = 0;

  /// Never null.
  virtual std::unique_ptr<SocketTable> openSocketTable() = 0;
};

/// The kernel that this program runs on; implemented once for each platform.
std::unique_ptr<Kernel> makeSystemKernel();

}  // namespace tessaloom
