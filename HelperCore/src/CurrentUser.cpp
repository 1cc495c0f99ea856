#include "HelperCore/CurrentUser.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <vector>

#include "PathText.h"

namespace tessaloom {
namespace {

/// An entry grows with what a directory service puts into it; no real one comes near the maximum.
constexpr std::size_t firstBufferSize = 1024;
constexpr std::size_t maximumBufferSize = std::size_t{1} << 24;

std::optional<CurrentUser> userOf(const passwd& entry) {
  if (entry.pw_dir == nullptr || entry.pw_name == nullptr) return std::nullopt;
  // A relative home would make the working directory decide which executables are found.
  const std::filesystem::path home = directoryText(entry.pw_dir);
  if (!home.is_absolute()) return std::nullopt;
  return CurrentUser{.homeDirectory = home, .loginName = entry.pw_name};
}

}  // namespace

std::optional<CurrentUser> lookUpCurrentUser() {
  for (std::vector<char> buffer(firstBufferSize); buffer.size() <= maximumBufferSize;) {
    passwd entry{};
    passwd* found = nullptr;
    const int error = ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found);
    if (error == EINTR) continue;
    if (error == ERANGE) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (error != 0 || found == nullptr) return std::nullopt;
    return userOf(entry);
  }
  return std::nullopt;
}

}  // namespace tessaloom
