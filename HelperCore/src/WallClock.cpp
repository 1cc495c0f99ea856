#include "HelperCore/WallClock.h"

#include <chrono>

namespace tessaloom {

Instant currentTime() {
  return std::chrono::time_point_cast<Instant::duration>(std::chrono::system_clock::now());
}

}  // namespace tessaloom
