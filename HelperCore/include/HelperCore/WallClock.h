#pragma once

#include <functional>

#include "HelperProtocol/ProcessMessages.h"

namespace tessaloom {

/// Tells the current time by the wall clock, which may be set back or forward at any moment.
using WallClock = std::function<Instant()>;

/// The system's wall clock.
Instant currentTime();

}  // namespace tessaloom
