#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "HelperCore/Kernel.h"

namespace tessaloom {

/// A kernel that says what a test wrote down, and writes down what it was asked.
class ScriptedKernel final : public Kernel {
 public:
  static constexpr std::uint32_t user = 1000;

  struct Descriptor {
    std::int32_t number;
    std::optional<SocketInfo> socket;  ///< Absent: closed before it could be looked at.
  };
  struct SocketHolder {
    std::int32_t pid;
    std::string name;
    std::vector<Descriptor> descriptors;
  };

  std::vector<ProcessRecord> table;
  std::map<std::int32_t, ProcessStartTime> startTimes;
  int signalError = 0;
  std::vector<SocketHolder> holders;

  std::vector<std::pair<std::int32_t, std::int32_t>> signals;  ///< pid, number.
  std::vector<std::int32_t> namesRead;                         ///< pids.

  std::uint32_t userID() const override { return user; }
  std::vector<ProcessRecord> fetchAllProcessRecords(std::uint32_t /*owner*/) override {
    return table;
  }
  std::unique_ptr<HeldProcess> holdProcess(std::int32_t pid) override {
    return std::make_unique<Held>(*this, pid);
  }
  std::unique_ptr<SocketTable> openSocketTable() override {
    return std::make_unique<Sockets>(*this);
  }

 private:
  struct Held final : HeldProcess {
    Held(ScriptedKernel& asked, std::int32_t number) : kernel(asked), pid(number) {}
    std::optional<ProcessStartTime> startTime() override {
      auto found = kernel.startTimes.find(pid);
      if (found == kernel.startTimes.end()) return std::nullopt;
      return found->second;
    }
    int signal(std::int32_t number) override {
      kernel.signals.emplace_back(pid, number);
      return kernel.signalError;
    }
    ScriptedKernel& kernel;
    const std::int32_t pid;
  };

  struct Sockets final : SocketTable {
    explicit Sockets(ScriptedKernel& asked) : kernel(asked) {}
    std::vector<std::int32_t> listOwnPIDs() override {
      std::vector<std::int32_t> pids;
      for (const SocketHolder& holder : kernel.holders) pids.push_back(holder.pid);
      return pids;
    }
    std::vector<std::int32_t> socketDescriptors(std::int32_t pid) override {
      std::vector<std::int32_t> numbers;
      for (const Descriptor& each : holder(pid).descriptors) numbers.push_back(each.number);
      return numbers;
    }
    std::string readProcessName(std::int32_t pid) override {
      kernel.namesRead.push_back(pid);
      return holder(pid).name;
    }
    std::optional<SocketInfo> socketInfo(std::int32_t pid, std::int32_t number) override {
      return std::ranges::find(holder(pid).descriptors, number, &Descriptor::number)->socket;
    }
    const SocketHolder& holder(std::int32_t pid) const {
      return *std::ranges::find(kernel.holders, pid, &SocketHolder::pid);
    }
    ScriptedKernel& kernel;
  };
};

inline ProcessRecord ownRecord(std::int32_t pid) {
  return {.pid = pid,
          .parentPID = 1,
          .owner = ScriptedKernel::user,
          .start = {1'700'000'000, 250'000},
          .terminal = "",
          .residentBytes = 4096,
          .name = "program"};
}

inline SocketInfo udpSocket(std::uint32_t networkOrderPort) {
  return {.kind = SocketInfo::Kind::internet,
          .protocol = 17,
          .tcpState = SocketInfo::TCPState::other,
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
