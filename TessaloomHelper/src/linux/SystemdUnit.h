#pragma once

#include <chrono>

#include <systemd/sd-bus.h>

namespace tessaloom {

/// Enables the helper's unit with the user's service manager, unless it is enabled already.
///
/// Waits for the manager at most `limit` in all, and no longer once `stopSignals` can be read; does
/// not start one. A failure is one line on standard error and nothing else.
void registerSystemdUnit(sd_bus* bus, std::chrono::microseconds limit, int stopSignals);

}  // namespace tessaloom
