#include "MemoryRelease.h"

#include <malloc/malloc.h>

namespace tessaloom {

void MemoryRelease::releaseFreedMemory() {
  ::malloc_zone_pressure_relief(nullptr, 0);  // All zones, as much as possible.
}

}  // namespace tessaloom
