#include "HelperCore/PerUserTemporaryDirectory.h"

#include <unistd.h>

#include <string>

namespace tessaloom {

std::filesystem::path perUserTemporaryDirectory() {
  return "/tmp/tessaloom-" + std::to_string(::getuid());
}

}  // namespace tessaloom
