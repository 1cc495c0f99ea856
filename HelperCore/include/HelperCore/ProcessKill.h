#pragma once

#include "HelperCore/Kernel.h"
#include "HelperCore/ProvenanceCache.h"
#include "HelperCore/WallClock.h"
#include "HelperProtocol/ProcessMessages.h"

namespace tessaloom {

/// Signals a process if `provenance` vouches for what now has its pid.
///
/// Everything that is not such a process is refused with one and the same message, so that a
/// refusal tells nothing about processes that were not listed; what the kernel refuses has the
/// kernel's message. There is no other rule: a listed process may be signalled, the helper itself
/// included. `clock` is read after the process was looked up.
KillResult killProcess(const KillRequest& request, Kernel& kernel,
                       const ProvenanceCache& provenance, const WallClock& clock);

}  // namespace tessaloom
