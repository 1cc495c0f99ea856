#pragma once

#include <vector>

#include "HelperCore/Kernel.h"
#include "linux/ProcessScan.h"

namespace tessaloom {

/// The processes of the user that have listening or bound sockets open, by pid.
///
/// The state and address of each socket are read from the kernel every time (SocketTable). Which
/// descriptors a process has open is remembered while it does not run. Two processes that share one
/// table of descriptors are read every time where one is the other's parent, and all processes are
/// where kcmp(2) is not permitted; others of that kind cannot be distinguished, which is why no
/// probe counts for long (ProcessScan::mayBeReused).
std::vector<SocketHolder> readSocketHolders(ProcessScan& scan);

}  // namespace tessaloom
