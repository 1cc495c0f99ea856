#pragma once

#include <cstdint>
#include <string>

namespace tessaloom {

/// A size as people read it: "512 B", "1.5 KiB", "24 MiB". Three digits at most before the unit.
std::string humanBytes(std::int64_t bytes);

/// How long something has existed, in its two largest units: "42s", "3m 20s", "5h 12m", "12d 4h".
std::string humanAge(std::int64_t seconds);

/// How long something took: "840 ms", "3.2 s".
std::string humanMilliseconds(std::int64_t milliseconds);

}  // namespace tessaloom
