#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <utf8proc.h>

#include "IndicConjuncts.h"

/// The user-perceived characters of a text without short cuts: every scalar goes through the
/// library and the rule that its older versions lack.
namespace tessaloom::naive {

/// Of a valid text.
inline std::vector<std::string> characters(std::string_view text) {
  std::vector<std::string> clusters;
  utf8proc_int32_t state = 0, scalar = 0, before = 0;
  for (std::size_t start = 0, length = 0; start < text.size(); start += length) {
    const auto* rest = reinterpret_cast<const utf8proc_uint8_t*>(text.data()) + start;
    length = static_cast<std::size_t>(
        utf8proc_iterate(rest, static_cast<utf8proc_ssize_t>(text.size() - start), &scalar));
    if (clusters.empty() || (utf8proc_grapheme_break_stateful(before, scalar, &state) &&
                             !joinsConjunct(clusters.back(), static_cast<char32_t>(scalar)))) {
      clusters.emplace_back();
    }
    clusters.back().append(text, start, length);
    before = scalar;
  }
  return clusters;
}

}  // namespace tessaloom::naive
