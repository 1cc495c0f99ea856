#pragma once

#include <string>
#include <vector>

namespace tessaloom {

/// The strings as exec and posix_spawn take arguments and environments: their addresses, then null.
/// Valid while `strings` stays as it is.
inline std::vector<char*> pointerArray(std::vector<std::string>& strings) {
  std::vector<char*> result;
  result.reserve(strings.size() + 1);
  for (std::string& string : strings) result.push_back(string.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace tessaloom
