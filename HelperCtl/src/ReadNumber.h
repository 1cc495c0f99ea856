#pragma once

#include <charconv>
#include <expected>
#include <string_view>
#include <system_error>

namespace tessaloom {

/// The decimal number that the whole text is, or `result_out_of_range` for one that `Number` cannot
/// hold, or `invalid_argument`.
template <class Number>
std::expected<Number, std::errc> readNumber(std::string_view text) {
  Number value{};
  const char* const textEnd = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), textEnd, value);
  if (end != textEnd) return std::unexpected(std::errc::invalid_argument);
  if (error != std::errc()) return std::unexpected(error);
  return value;
}

}  // namespace tessaloom
