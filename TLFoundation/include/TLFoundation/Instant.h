#pragma once

#include <chrono>

namespace tessaloom {

/// A point of the wall clock, in seconds since the Unix epoch as a double.
using Instant = std::chrono::sys_time<std::chrono::duration<double>>;

}  // namespace tessaloom
