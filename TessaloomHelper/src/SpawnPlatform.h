#pragma once

#include <spawn.h>
#include <sys/types.h>

#include "TLFoundation/FileDescriptor.h"

/// The little about starting and watching a child on which the platforms differ. Errors are errno
/// values. Safe from any thread.
namespace tessaloom::SpawnPlatform {

/// Lets the child inherit nothing but what `actions` connect to descriptors 0 to 2. Call it after
/// the last of these actions was added. Returns 0, or the error.
int inheritStandardDescriptorsOnly(posix_spawn_file_actions_t& actions, short& spawnFlags);

/// A descriptor that polls as readable once the child exits or has exited. None when the system has
/// none to give, or has forgotten a child that is gone: then the child must be asked.
FileDescriptor exitDescriptor(pid_t child);

}  // namespace tessaloom::SpawnPlatform
