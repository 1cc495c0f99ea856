#pragma once

#include <filesystem>

namespace tessaloom {

/// The system's temporary directory for the current user, without a trailing slash. No environment
/// variable is read. Safe from any thread.
std::filesystem::path userTemporaryDirectory();

}  // namespace tessaloom
