#pragma once

#include <sys/types.h>

#include <expected>
#include <filesystem>

#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

// The path of the file that a process executes: where it is now or, once it has been deleted or
// another has taken its place, where it was. Source: proc(5), /proc/PID/exe, whose text the kernel
// ends with " (deleted)" once the file has no such name anymore. The errors are errno values. Safe
// from any thread.

/// Of the process whose directory below /proc is open (O_PATH is enough).
std::expected<std::filesystem::path, int> executablePath(const FileDescriptor& processDirectory);

std::expected<std::filesystem::path, int> executablePath(pid_t process);

/// Of this process.
std::expected<std::filesystem::path, int> ownExecutablePath();

}  // namespace tessaloom
