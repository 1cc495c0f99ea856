#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace tessaloom {

/// The user that the helper runs as.
struct CurrentUser {
  std::filesystem::path homeDirectory;  ///< Absolute, without a trailing slash unless it is "/".
  std::string loginName;

  friend bool operator==(const CurrentUser&, const CurrentUser&) = default;
};

/// From the user database, getpwuid_r(getuid()), which is read anew at every call; no environment
/// variable is read. nullopt if the database has no such user, gives it no absolute home
/// directory, or cannot be read. Safe from any thread.
std::optional<CurrentUser> lookUpCurrentUser();

}  // namespace tessaloom
