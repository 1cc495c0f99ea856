#pragma once

#include <vector>

#include "HelperCore/Kernel.h"
#include "linux/ProcessScan.h"

namespace tessaloom {

/// The processes of the user that have listening or bound sockets open, by pid.
///
/// The state and address of each socket are read from the kernel every time (SocketTable). Which
/// descriptors a process has open is remembered while it does not run. Two processes that share one
/// table of descriptors are read every time where one is the other's parent and kcmp(2) shows it,
/// and all processes are where kcmp is not permitted at all; others of that kind cannot be
/// distinguished, which is why no probe counts for long (ProcessScan::mayBeReused).
///
/// A socket is missing when no process of the user is in its network namespace: only its owner
/// could say what its state is.
std::vector<SocketHolder> readSocketHolders(ProcessScan& scan);

}  // namespace tessaloom
