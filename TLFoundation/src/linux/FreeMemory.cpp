#include "TLFoundation/FreeMemory.h"

#include <malloc.h>

namespace tessaloom {

void returnFreeMemory() noexcept {
  ::malloc_trim(0);
}

}  // namespace tessaloom
