#include "linux/KeyFile.h"

#include <algorithm>

namespace tessaloom {

namespace {

std::string_view withoutBlanks(std::string_view text) {
  constexpr std::string_view blanks = " \t\r";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace

std::optional<std::string> keyFileValue(std::string_view text, std::string_view group,
                                        std::string_view key) {
  std::optional<std::string> value;
  bool inGroup = false;
  while (!text.empty()) {
    const auto lineEnd = std::min(text.find('\n'), text.size());
    const auto line = withoutBlanks(text.substr(0, lineEnd));
    text.remove_prefix(std::min(lineEnd + 1, text.size()));

    if (line.starts_with('[')) {
      inGroup = line.ends_with(']') && line.substr(1, line.size() - 2) == group;
      continue;
    }
    const auto equals = line.find('=');
    if (!inGroup || line.starts_with('#') || equals == std::string_view::npos) continue;
    if (withoutBlanks(line.substr(0, equals)) != key) continue;
    if (value) return std::nullopt;
    value = withoutBlanks(line.substr(equals + 1));
  }
  return value;
}

}  // namespace tessaloom
