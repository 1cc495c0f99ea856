#pragma once

#include <expected>
#include <filesystem>
#include <string>

#include "linux/ProcessDirectory.h"

namespace tessaloom {

/// The application of the running Flatpak instance that a process belongs to; empty when it belongs
/// to none.
///
/// Relies on what a sandbox cannot write, never on a file in the process's own tree. Flatpak keeps
/// a directory `.flatpak/INSTANCE` for each running instance in the user's runtime directory, which
/// the sandbox sees read-only at most:
/// - `info` names the application and the instance;
/// - the first process inside the sandbox holds a lock on `.ref` for as long as the instance runs,
///   and the kernel reports which process that is.
///
/// A process belongs to the instance when it is in that first process's mount, process and user
/// namespaces, or is the proxy through which the sandbox reaches the bus. The proxy runs outside of
/// those; it and the first process hold the two ends of a pipe, by which it notices the instance's
/// end.
///
/// Errors are errno values. Safe from any thread.
std::expected<std::string, int> flatpakApplication(const ProcessDirectory& process,
                                                   const std::filesystem::path& runtimeDirectory);

}  // namespace tessaloom
