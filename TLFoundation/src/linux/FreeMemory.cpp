#include "TLFoundation/FreeMemory.h"

#include <malloc.h>

namespace tessaloom {

// By itself the allocator raises both thresholds to the size of the largest block that was freed,
// and then keeps blocks of that size in an arena for each thread.
void keepLittleFreeMemory() noexcept {
  constexpr int threshold = 128 * 1024;
  ::mallopt(M_MMAP_THRESHOLD, threshold);
  ::mallopt(M_TRIM_THRESHOLD, threshold);
  ::mallopt(M_ARENA_MAX, 2);
}

void returnFreeMemory() noexcept {
  ::malloc_trim(0);
}

}  // namespace tessaloom
