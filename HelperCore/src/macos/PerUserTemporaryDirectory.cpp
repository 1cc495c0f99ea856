#include "HelperCore/PerUserTemporaryDirectory.h"

#include <limits.h>
#include <unistd.h>

#include <array>

#include "PathText.h"

namespace tessaloom {

std::filesystem::path perUserTemporaryDirectory() {
  std::array<char, PATH_MAX> buffer{};
  const std::size_t length = ::confstr(_CS_DARWIN_USER_TEMP_DIR, buffer.data(), buffer.size());
  if (length == 0 || length > buffer.size()) return "/tmp";
  return directoryText(buffer.data());  // confstr ends it with a slash.
}

}  // namespace tessaloom
