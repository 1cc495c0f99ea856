#pragma once

namespace tessaloom {

/// Registers this helper with the system's service management, unless it is enabled already, so
/// that launchd starts it for the editor. A failure is one line on standard error.
void registerLaunchAgent();

}  // namespace tessaloom
