#include "MemoryRelease.h"

#include <malloc.h>

namespace tessaloom {

void MemoryRelease::releaseFreedMemory() {
  ::malloc_trim(0);
}

}  // namespace tessaloom
