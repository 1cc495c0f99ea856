#pragma once

#include "HelperCore/Kernel.h"
#include "HelperCore/ProvenanceCache.h"
#include "HelperProtocol/ProcessMessages.h"

namespace tessaloom {

/// Signals a process if `provenance` authorizes what now has its pid.
///
/// Everything that is not such a process is refused with one and the same message, so that a
/// refusal says nothing about processes that were not listed; what the kernel refuses has the
/// kernel's message. There is no other rule: a listed process may be signalled, the helper itself
/// included.
KillResult killProcess(const KillRequest& request, Kernel& kernel,
                       const ProvenanceCache& provenance);

}  // namespace tessaloom
