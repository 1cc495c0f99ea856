#pragma once

#include <sys/types.h>

#include <expected>
#include <set>
#include <string>
#include <utility>

#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

/// One process's directory below /proc (proc(5)), held open: it always refers to the same process,
/// so what is read through it cannot be a mixture of two processes that had the pid one after the
/// other. Once the process no longer exists, every read fails with ESRCH.
///
/// Only the texts of links are read, which the kernel makes up itself. Nothing is looked up in the
/// process's own file system, where a look-up may block indefinitely. Errors are errno values. Safe
/// from any thread.
class ProcessDirectory {
 public:
  static std::expected<ProcessDirectory, int> open(pid_t process);
  static std::expected<ProcessDirectory, int> self();

  const FileDescriptor& descriptor() const { return directory_; }

  /// A name that all processes in the same namespace share; `kind` is mnt, pid, user and so on.
  std::expected<std::string, int> namespaceName(const char* kind) const;

  enum class PipeEnd : unsigned char { reading, writing };

  /// The names of the pipes of which it holds this end among its first descriptors, standard ones
  /// excepted.
  std::expected<std::set<std::string>, int> pipes(PipeEnd end) const;

 private:
  explicit ProcessDirectory(FileDescriptor directory) : directory_(std::move(directory)) {}
  static std::expected<ProcessDirectory, int> open(const std::string& path);

  FileDescriptor directory_;
};

}  // namespace tessaloom
