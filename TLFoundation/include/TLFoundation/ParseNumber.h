#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

namespace tessaloom {

/// The number that the whole text is; nullopt, too, for one that `Number` cannot hold.
template <class Number>
std::optional<Number> parseNumber(std::string_view text, int base = 10) {
  Number number{};
  const char* const textEnd = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), textEnd, number, base);
  if (error != std::errc() || end != textEnd) return std::nullopt;
  return number;
}

}  // namespace tessaloom
