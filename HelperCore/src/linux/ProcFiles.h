#pragma once

#include <atomic>
#include <cstdint>
#include <expected>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

/// The path of one file of one process or thread below /proc, as in "4242/stat". Small enough to be
/// made for each use.
class ProcPath {
 public:
  /// `number`: a process or, though it is not listed there, a thread.
  explicit ProcPath(std::int32_t number, std::string_view file = {});
  const char* text() const { return text_; }

 private:
  char text_[32];
};

/// The files of /proc, for the length of one listing. Safe from any thread.
class ProcFiles {
 public:
  /// `directory` is /proc and outlives this object.
  explicit ProcFiles(const FileDescriptor& directory) : directory_(directory.get()) {}

  /// Opens for reading; none, with errno, on failure.
  FileDescriptor open(const char* path, int flags = 0) const;
  FileDescriptor open(const ProcPath& path, int flags = 0) const {
    return open(path.text(), flags);
  }

  /// The start of a file, in one read; empty when it cannot be read.
  std::string_view read(const ProcPath& path, std::span<char> buffer) const;

  /// The entries of a directory whose names are numbers, in the kernel's order. nullopt when it
  /// cannot be opened or a read fails.
  std::optional<std::vector<std::int32_t>> listNumbers(const char* path) const;

  /// The effective user of a process: the owner of its directory, which it keeps even when the
  /// process is not dumpable and the files inside belong to the root of its user namespace
  /// (proc(5)).
  std::optional<std::uint32_t> owner(std::int32_t pid) const;

  /// Whether a process belongs to `owner`, when `file` was just opened below its directory, which
  /// belonged to `owner` before. Reads the directory's owner again where the file has another.
  bool isOwnedBy(std::uint32_t owner, std::int32_t pid, const FileDescriptor& file) const;

  /// The network namespace of a process or thread. Fails with an errno value: EACCES where the
  /// kernel refuses to show what the process has open, too.
  std::expected<std::uint32_t, int> networkNamespace(std::int32_t number) const;

  /// A descriptor was refused (EMFILE, ENFILE), so that something may be missing.
  bool ranOutOfDescriptors() const { return ranOut_; }

 private:
  const int directory_;
  mutable std::atomic<bool> ranOut_ = false;
};

/// The start of an open file, in one read; empty when it cannot be read.
std::string_view readStart(const FileDescriptor& file, std::span<char> buffer);

/// The entries of an open directory whose names are numbers. nullopt when a read fails.
std::optional<std::vector<std::int32_t>> listNumbers(const FileDescriptor& directory);

}  // namespace tessaloom
