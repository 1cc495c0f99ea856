#include "TLFoundation/FreeMemory.h"

namespace tessaloom {

// The system's allocator gives large blocks back when they are freed, and the rest when memory gets
// short.
void keepLittleFreeMemory() noexcept {}

void returnFreeMemory() noexcept {}

}  // namespace tessaloom
