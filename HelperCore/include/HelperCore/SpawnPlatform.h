#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <expected>

#include "TLFoundation/FileDescriptor.h"

/// What the platforms do differently to start and watch a child. Errors are errno values. Safe from
/// any thread.
namespace tessaloom::SpawnPlatform {

/// What becomes a child's standard descriptors. Each must be numbered above them itself.
struct ChildEnds {
  int input;
  int output;
  int error;
};

/// A program in the form that execve(2) takes. What it points to must exist until `spawn` returns.
struct Program {
  const char* executable;
  char* const* arguments;        ///< With the program's name; a null pointer ends it.
  char* const* environment;      ///< A null pointer ends it.
  const char* workingDirectory;  ///< Null for this process's own.
  /// What setrlimit(2) with RLIMIT_NOFILE gives the child; null for this process's own. Only Linux
  /// can: elsewhere it must be null.
  const rlimit* descriptorLimit;
};

/// Starts the program as given: no search, no shell. The child leads a process group of its own,
/// blocks no signal, has every signal at its default and inherits no descriptor but `ends`.
///
/// Returns once the program is executing. Fails with the error of the step that failed, for example
/// because the executable or working directory is missing; then there is no child.
std::expected<pid_t, int> spawn(const Program& program, const ChildEnds& ends);

/// A descriptor that polls as readable once the child exits or has exited. None when the system
/// lacks descriptors or such a call, or when the child has exited already (macOS): then the caller
/// must check at intervals with waitid(2).
FileDescriptor exitDescriptor(pid_t child);

}  // namespace tessaloom::SpawnPlatform
