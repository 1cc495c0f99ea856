#pragma once

#include <chrono>
#include <string_view>

#include <systemd/sd-bus.h>

namespace tessaloom {

/// Enables the helper's unit with the user's service manager, unless it is enabled already.
///
/// Waits for the manager at most `limit` in all, and no longer once `stopSignals` can be read; does
/// not start one. A failure is one line on standard error and nothing else.
void registerSystemdUnit(sd_bus* bus, std::chrono::microseconds limit, int stopSignals);

/// Notifies the service manager of a state, if it started this process to be notified
/// (sd_notify(3)). Never waits: false when the manager has too many notices to read, or no
/// descriptor is left; try again.
bool notifyManager(std::string_view state);

}  // namespace tessaloom
