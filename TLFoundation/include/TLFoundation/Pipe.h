#pragma once

#include <cstdint>
#include <expected>

#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

struct Pipe {
  FileDescriptor readEnd;
  FileDescriptor writeEnd;
};

enum class PipeMode : std::uint8_t { blocking, nonblocking };

/// A pipe whose ends are close-on-exec and numbered above the standard descriptors, so that
/// connecting one of those in a child never overwrites an end still needed. The error is an errno
/// value. Safe from any thread.
std::expected<Pipe, int> makePipe(PipeMode mode = PipeMode::blocking);

}  // namespace tessaloom
