#pragma once

#include <cstddef>

namespace tessaloom {

/// Gives memory back to the system once much of it has been freed, which the allocator does not do
/// by itself. It acts when it goes, so it must be declared before what it is to give back.
class MemoryRelease {
 public:
  MemoryRelease() = default;
  ~MemoryRelease() {
    if (bytes_ >= large) releaseFreedMemory();
  }
  MemoryRelease(const MemoryRelease&) = delete;
  MemoryRelease& operator=(const MemoryRelease&) = delete;

  /// Takes the size of something large into account.
  void add(std::size_t bytes) { bytes_ += bytes; }

 private:
  static constexpr std::size_t large = 262'144;  ///< Bytes. Less stays for the next time.

  static void releaseFreedMemory();

  std::size_t bytes_ = 0;
};

}  // namespace tessaloom
