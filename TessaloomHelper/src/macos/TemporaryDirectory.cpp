#include "TemporaryDirectory.h"

#include <limits.h>
#include <unistd.h>

#include <array>
#include <string>

namespace tessaloom {

std::filesystem::path userTemporaryDirectory() {
  std::array<char, PATH_MAX> buffer{};
  const std::size_t size = ::confstr(_CS_DARWIN_USER_TEMP_DIR, buffer.data(), buffer.size());
  if (size == 0 || size > buffer.size()) return "/tmp";
  std::string path(buffer.data());
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

}  // namespace tessaloom
