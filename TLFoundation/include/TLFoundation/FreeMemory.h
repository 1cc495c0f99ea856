#pragma once

namespace tessaloom {

/// Makes the allocator keep little of what is freed. To be called at start, before other threads
/// run.
void keepLittleFreeMemory() noexcept;

/// Gives the system the memory that the process has freed but its allocator keeps. Costs some tens
/// of microseconds, and page faults when the memory is needed again: for after large work.
void returnFreeMemory() noexcept;

}  // namespace tessaloom
