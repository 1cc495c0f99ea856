#include "HumanFormat.h"

#include <array>
#include <cstddef>
#include <string_view>

namespace tessaloom {
namespace {

/// `tenths` as a decimal number with one digit after the point.
std::string decimal(std::int64_t tenths) {
  return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10);
}

}  // namespace

std::string humanBytes(std::int64_t bytes) {
  static constexpr std::array<std::string_view, 7> units{"B",   "KiB", "MiB", "GiB",
                                                         "TiB", "PiB", "EiB"};
  if (bytes < 1'000) return std::to_string(bytes) + " B";
  // The next unit is taken at 1,000 of the last, so that no number has four digits.
  std::size_t unit = 1;
  std::int64_t whole = bytes;
  while (whole >= std::int64_t{1'000} * 1'024 && unit + 1 < units.size()) {
    whole /= 1'024;
    ++unit;
  }
  const std::int64_t tenths = whole * 10 / 1'024;
  const std::string number = tenths < 100 ? decimal(tenths) : std::to_string(tenths / 10);
  return number + " " + std::string(units[unit]);
}

std::string humanAge(std::int64_t seconds) {
  struct Unit {
    std::int64_t seconds;
    std::string_view name;
  };
  static constexpr std::array units{Unit{86'400, "d"}, Unit{3'600, "h"}, Unit{60, "m"},
                                    Unit{1, "s"}};
  if (seconds < 60) return std::to_string(seconds) + "s";
  for (std::size_t i = 0; i + 1 < units.size(); ++i) {
    if (seconds < units[i].seconds) continue;
    const std::int64_t rest = seconds % units[i].seconds / units[i + 1].seconds;
    return std::to_string(seconds / units[i].seconds) + std::string(units[i].name) + " " +
           std::to_string(rest) + std::string(units[i + 1].name);
  }
  return {};
}

std::string humanMilliseconds(std::int64_t milliseconds) {
  if (milliseconds < 1'000) return std::to_string(milliseconds) + " ms";
  return decimal(milliseconds / 100) + " s";
}

}  // namespace tessaloom
