#pragma once

#include <cstddef>
#include <string>

namespace tessaloom {

inline std::string repeated(const std::string& text, std::size_t count) {
  std::string result;
  for (; count > 0; --count) result += text;
  return result;
}

}  // namespace tessaloom
