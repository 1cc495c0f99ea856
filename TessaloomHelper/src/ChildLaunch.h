#pragma once

#include <sys/types.h>

#include <expected>

#include "HelperCore/CLIInvocation.h"

namespace tessaloom {

/// What becomes a child's standard descriptors. Each must be above them itself.
struct ChildEnds {
  int input;
  int output;
  int error;
};

/// Starts the invocation's executable as it stands: no search, no shell. The child leads a process
/// group of its own, blocks no signal, has every signal at its default and inherits no descriptor
/// but `ends`.
///
/// Fails with the errno value of whatever kept it from running, a missing executable or working
/// directory included; then there is no child. Safe from any thread.
std::expected<pid_t, int> launchChild(const CLIInvocation& invocation, const ChildEnds& ends);

}  // namespace tessaloom
