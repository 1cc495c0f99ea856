#pragma once

#include "HelperCore/Kernel.h"
#include "HelperCore/ProvenanceCache.h"
#include "HelperProtocol/ProcessMessages.h"

namespace tessaloom {

/// Signals the process that now has the request's pid, if `provenance` authorizes that process.
///
/// All other pids are refused with one and the same message, so that a refusal reveals nothing
/// about processes that were not listed; a signal that the kernel refuses has the kernel's message.
/// There is no other rule: a listed process may be signaled, the helper itself included.
KillResult killProcess(const KillRequest& request, Kernel& kernel,
                       const ProvenanceCache& provenance);

}  // namespace tessaloom
