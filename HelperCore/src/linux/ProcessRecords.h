#pragma once

#include <vector>

#include "HelperCore/Kernel.h"
#include "linux/ProcessScan.h"

namespace tessaloom {

/// The rows of the process table, by pid.
///
/// A start time has the resolution of a clock tick, so a pid that is reused within a tick would
/// give two processes one identity. No listing shows such a process: one that started in the
/// current tick is read again once that tick is over, and every process that can get the same pid
/// after that has a later start.
///
/// Resident sizes are read every time. So is the rest of a process with a terminal, which it may
/// lose, and of one whose parent is not known to be alive.
std::vector<ProcessRecord> readProcessRecords(ProcessScan& scan);

}  // namespace tessaloom
