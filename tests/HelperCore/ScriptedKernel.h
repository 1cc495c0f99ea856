#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "HelperCore/Kernel.h"

namespace tessaloom {

/// A kernel that answers what a test sets, and records the signals.
class ScriptedKernel final : public Kernel {
 public:
  static constexpr std::uint32_t user = 1000;

  std::vector<ProcessRecord> table;
  std::map<std::int32_t, ProcessStartTime> startTimes;
  int signalError = 0;
  std::vector<SocketHolder> holders;

  std::function<Instant()> wallClock = [] { return Instant{}; };
  Instant processClock;

  std::vector<std::pair<std::int32_t, std::int32_t>> signals;  ///< pid, number.

  std::uint32_t userID() const override { return user; }
  std::vector<ProcessRecord> fetchAllProcessRecords(std::uint32_t /*owner*/) override {
    return table;
  }
  Instant wallClockTime() const override { return wallClock(); }
  Instant processClockTime() const override { return processClock; }
  std::vector<SocketHolder> fetchSocketHolders(std::uint32_t /*owner*/) override { return holders; }
  std::unique_ptr<ProcessHandle> openProcess(std::int32_t pid) override {
    return std::make_unique<Handle>(*this, pid);
  }
  void releaseKeptDescriptors() override {}

 private:
  struct Handle final : ProcessHandle {
    Handle(ScriptedKernel& asked, std::int32_t number) : kernel(asked), pid(number) {}
    std::optional<ProcessStartTime> startTime() override {
      auto found = kernel.startTimes.find(pid);
      return found == kernel.startTimes.end() ? std::nullopt : std::optional(found->second);
    }
    int signal(std::int32_t number) override {
      kernel.signals.emplace_back(pid, number);
      return kernel.signalError;
    }
    ScriptedKernel& kernel;
    const std::int32_t pid;
  };
};

inline ProcessRecord ownRecord(std::int32_t pid) {
  return {pid, 1, ScriptedKernel::user, {1'700'000'000, 250'000}, "", 4096, "program"};
}

inline SocketInfo udpSocket(std::uint32_t networkOrderPort) {
  return {.kind = SocketInfo::Kind::internet,
          .protocol = 17,
          .localPort = networkOrderPort,
          .versionFlags = SocketInfo::ipv4,
          .localAddress = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 127, 0, 0, 1}};
}

inline SocketInfo tcpListener(std::uint32_t networkOrderPort) {
  SocketInfo info = udpSocket(networkOrderPort);
  info.kind = SocketInfo::Kind::tcp;
  info.protocol = 6;
  info.tcpState = SocketInfo::TCPState::listening;
  return info;
}

}  // namespace tessaloom
