#pragma once

#include <expected>

#include "HelperProtocol/linux/BusHandles.h"

namespace tessaloom {

/// A connection to the user's session bus: the one in DBUS_SESSION_BUS_ADDRESS, else the one in
/// XDG_RUNTIME_DIR, else the one where a service manager makes it, in /run/user/UID. It carries no
/// file descriptors: no method takes any, and those that came with a waiting call would stay open
/// as long as it waits. The errno on failure.
std::expected<BusHandle, int> openSessionBus();

}  // namespace tessaloom
