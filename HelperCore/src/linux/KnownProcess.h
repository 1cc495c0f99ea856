#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "TLFoundation/FileDescriptor.h"
#include "linux/IdleProbe.h"
#include "linux/SocketDescriptors.h"

namespace tessaloom {

/// What the listings use of /proc/PID/stat.
struct ProcessFacts {
  std::string name;
  std::uint64_t startTicks = 0;
  std::int32_t parentPID = 0;
  std::uint32_t terminal = 0;  ///< Its encoded device number; 0 for none.
  std::uint32_t threads = 0;
  bool isKernelThread = false;
  bool isZombie = false;  ///< The main thread has exited; others may go on.
};

/// What is known of one of the user's processes, for the listing that reads it and for the next.
struct KnownProcess {
  KnownProcess() = default;
  explicit KnownProcess(std::int32_t number) : pid(number) {}

  /// Closes and forgets everything, because it is about a process that has ended or is not the
  /// user's.
  void forget() { *this = KnownProcess(pid); }

  std::int32_t pid = 0;
  /// An earlier listing found it, or another process that had the pid before it.
  bool isFromEarlier = false;
  FileDescriptor statm;
  IdleProbe probe;  ///< Watches since before `facts` and `sockets` were read.
  std::optional<ProcessFacts> facts;
  std::optional<SocketDescriptors> sockets;
};

}  // namespace tessaloom
