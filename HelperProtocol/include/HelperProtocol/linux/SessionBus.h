#pragma once

#include <expected>
#include <filesystem>
#include <string>

#include "HelperProtocol/linux/BusHandles.h"

namespace tessaloom {

/// Where the user's bus and running Flatpaks are: $XDG_RUNTIME_DIR (XDG Base Directories),
/// otherwise the directory that the system makes for this user, /run/user/UID.
std::filesystem::path userRuntimeDirectory();

/// The D-Bus address of the user's session bus: DBUS_SESSION_BUS_ADDRESS, else the bus in the
/// user's runtime directory.
std::string sessionBusAddress();

/// A connection to the user's session bus. It carries no file descriptors: no method takes any, and
/// those that came with a waiting call would stay open as long as it waits. The errno on failure.
std::expected<BusHandle, int> openSessionBus();

}  // namespace tessaloom
