#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace tessaloom {

/// The case of `cases` whose wire value is `text`; nullopt if there is none.
template <class Enum, std::size_t count>
std::optional<Enum> caseNamed(std::string_view text, const std::array<Enum, count>& cases) {
  for (const Enum one : cases) {
    if (wireValue(one) == text) return one;
  }
  return std::nullopt;
}

}  // namespace tessaloom
