#pragma once

#include <memory>

#include "OpenCalls.h"
#include "TessaloomHelper/HelperService.h"

namespace tessaloom {

// What the services of all connections share, made once on first use and kept for the life of the
// process. Safe from any thread.

/// The first use also takes the identity of the executable that was started, so it belongs before
/// anything that a newer build could overtake.
const ServiceContext& serviceContext();

/// Counts a call as open until every copy of the result is destroyed. The helper exits only once
/// no engine call is open, after a signal also past a time limit, and waits a limited time for the
/// others.
std::shared_ptr<void> openCall(Method::Kind kind);

/// From here on the signals with which a user or a session ends a process end this one in order:
/// the engines are ended, their calls answered, and their directories removed first.
void endOnSignals();

}  // namespace tessaloom
