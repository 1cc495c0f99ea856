#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <map>
#include <string>

#include "HelperCore/Kernel.h"
#include "KernelLists.h"
#include "KernelRecords.h"

namespace tessaloom {

namespace {

/// sysctl(3) on the process table. 0 or an errno value; `bytes` as sysctl takes and sets it.
int readProcesses(int selector, int argument, kinfo_proc* records, std::size_t& bytes) {
  int name[] = {CTL_KERN, KERN_PROC, selector, argument};
  return ::sysctl(name, std::size(name), records, &bytes, nullptr, 0) == 0 ? 0 : errno;
}

std::uint64_t residentBytes(std::int32_t pid) {
  proc_taskinfo task{};
  int filled = ::proc_pidinfo(pid, PROC_PIDTASKINFO, 0, &task, sizeof task);
  return filled == sizeof task ? task.pti_resident_size : 0;
}

/// The name in /dev; empty when no device there has this number.
std::string deviceName(dev_t device) {
  std::array<char, PATH_MAX> name{};
  // Unlike devname(3), it shares no storage between threads.
  if (::devname_r(device, S_IFCHR, name.data(), static_cast<int>(name.size())) == nullptr)
    return {};
  return {name.begin(), std::ranges::find(name, '\0')};
}

/// A process by its number: macOS cannot pin one.
class NumberedProcess final : public ProcessHandle {
 public:
  explicit NumberedProcess(std::int32_t pid) : pid_(pid) {}

  std::optional<ProcessStartTime> startTime() override {
    kinfo_proc record{};
    std::size_t bytes = sizeof record;
    // A process that is gone is a success of no bytes.
    if (readProcesses(KERN_PROC_PID, pid_, &record, bytes) != 0 || bytes < sizeof record ||
        record.kp_proc.p_pid != pid_)
      return std::nullopt;
    return decodeStartTime(record);
  }

  int signal(std::int32_t number) override { return ::kill(pid_, number) == 0 ? 0 : errno; }

 private:
  std::int32_t pid_;
};

std::vector<std::int32_t> listOwnPIDs(std::uint32_t user) {
  auto pids = readList<std::int32_t>([user](std::int32_t* buffer, int bytes) {
    return ::proc_listpids(PROC_UID_ONLY, user, buffer, bytes);
  });
  std::erase_if(pids, [](std::int32_t pid) { return pid < 1; });
  return pids;
}

std::vector<std::int32_t> socketDescriptors(std::int32_t pid) {
  auto descriptors = readList<proc_fdinfo>([pid](proc_fdinfo* buffer, int bytes) {
    return ::proc_pidinfo(pid, PROC_PIDLISTFDS, 0, buffer, bytes);
  });
  std::vector<std::int32_t> sockets;
  for (const proc_fdinfo& descriptor : descriptors) {
    if (descriptor.proc_fdtype == PROX_FDTYPE_SOCKET) sockets.push_back(descriptor.proc_fd);
  }
  return sockets;
}

std::string readProcessName(std::int32_t pid) {
  std::array<char, 256> name{};
  if (::proc_name(pid, name.data(), name.size()) < 1) return {};
  return {name.begin(), std::ranges::find(name, '\0')};
}

/// nullopt when the descriptor was closed meanwhile.
std::optional<SocketInfo> readSocket(std::int32_t pid, std::int32_t descriptor) {
  socket_fdinfo record{};
  int filled = ::proc_pidfdinfo(pid, descriptor, PROC_PIDFDSOCKETINFO, &record, sizeof record);
  if (filled != sizeof record) return std::nullopt;
  return decodeSocket(record);
}

class MacKernel final : public Kernel {
 public:
  std::uint32_t userID() const override { return ::getuid(); }

  Instant wallClockTime() const override {
    return std::chrono::time_point_cast<Instant::duration>(std::chrono::system_clock::now());
  }

  // Start times are points of the wall clock here, as it was then.
  Instant processClockTime() const override { return wallClockTime(); }

  std::vector<ProcessRecord> fetchAllProcessRecords(std::uint32_t owner) override {
    auto table = readTable<kinfo_proc>([](kinfo_proc* records, std::size_t& bytes) {
      return readProcesses(KERN_PROC_ALL, 0, records, bytes);
    });
    std::vector<ProcessRecord> processes;
    std::map<dev_t, std::string> terminals;  // To find a name takes a search of /dev.
    for (const kinfo_proc& record : table) {
      // The two look-ups for each process are spent on the wanted owner's only.
      if (record.kp_eproc.e_ucred.cr_uid != owner) continue;
      ProcessRecord& process = processes.emplace_back(decodeProcess(record));
      if (auto terminal = decodeTerminal(record)) {
        const auto [known, isNew] = terminals.try_emplace(*terminal);
        if (isNew) known->second = deviceName(*terminal);
        process.terminal = known->second;
      }
      process.residentBytes = residentBytes(process.pid);
    }
    return processes;
  }

  std::vector<SocketHolder> fetchSocketHolders(std::uint32_t owner) override {
    std::vector<SocketHolder> holders;
    for (const std::int32_t pid : listOwnPIDs(owner)) {
      const auto descriptors = socketDescriptors(pid);
      if (descriptors.empty()) continue;
      SocketHolder& holder = holders.emplace_back();
      holder.pid = pid;
      holder.name = readProcessName(pid);
      for (const std::int32_t descriptor : descriptors) {
        if (auto socket = readSocket(pid, descriptor)) holder.sockets.push_back(*socket);
      }
    }
    return holders;
  }

  std::unique_ptr<ProcessHandle> openProcess(std::int32_t pid) override {
    return std::make_unique<NumberedProcess>(pid);
  }

  // Nothing is kept.
  void releaseKeptDescriptors() override {}
};

}  // namespace

std::unique_ptr<Kernel> makeSystemKernel() {
  return std::make_unique<MacKernel>();
}

}  // namespace tessaloom
