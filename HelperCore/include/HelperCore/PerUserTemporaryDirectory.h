#pragma once

#include <filesystem>

namespace tessaloom {

/// Where this user's temporary files belong: /tmp/tessaloom-UID on Linux, the system's own per-user
/// directory on macOS. No environment variable is read, and the directory need not exist. Safe from
/// any thread.
std::filesystem::path perUserTemporaryDirectory();

}  // namespace tessaloom
