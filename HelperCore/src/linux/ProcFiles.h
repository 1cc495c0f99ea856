#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "TLFoundation/FileDescriptor.h"

namespace tessaloom::linux_kernel {

/// The path of one file of one process below /proc, as in "4242/stat". Small enough to be made
/// for each use.
class ProcPath {
 public:
  ProcPath(std::int32_t pid, std::string_view file);
  const char* text() const { return text_; }

 private:
  char text_[32];
};

/// Opens what is at `path` below `directory` for reading; none, with errno, on failure.
FileDescriptor openAt(int directory, const char* path, int flags = 0);

/// The start of an open file, in one read; empty when it cannot be read.
std::string_view readStart(int file, std::span<char> buffer);

/// The same of the file at `path`, which is closed again.
std::string_view readStartAt(int directory, const char* path, std::span<char> buffer);

/// The effective user of a process: the owner of its folder, which it keeps even when the process
/// is not dumpable and the files inside belong to root (proc(5)).
std::optional<std::uint32_t> processOwner(int procDirectory, std::int32_t pid);

/// Whether a process belongs to `owner`, when `file` was just opened below its folder. Saves a look
/// at the folder where the file's owner says enough: it is the process's unless it is root.
bool isOwnedBy(std::uint32_t owner, int procDirectory, std::int32_t pid,
               const FileDescriptor& file);

/// The entries of an open directory whose names are numbers, in the kernel's order. Nothing when
/// a read fails.
std::optional<std::vector<std::int32_t>> listNumbers(int directory);

}  // namespace tessaloom::linux_kernel
