#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <utf8proc.h>

/// The user-perceived characters of a text without short cuts: every scalar goes through the
/// library, and the rule that its older versions lack is stated from its definition.
namespace tessaloom::naive {

/// GB9c: a consonant, then marks with a linker among them, then a consonant. `before` is the
/// character so far.
inline bool isConjunct(std::u32string_view before, char32_t next) {
  // The first and last of each run, Unicode 17.
  constexpr std::u32string_view consonants =
      U"\u0915\u0939\u0958\u095F\u0978\u097F\u0995\u09A8\u09AA\u09B0\u09B2\u09B2\u09B6\u09B9\u09DC"
      U"\u09DD\u09DF\u09DF\u09F0\u09F1\u0A95\u0AA8\u0AAA\u0AB0\u0AB2\u0AB3\u0AB5\u0AB9\u0AF9\u0AF9"
      U"\u0B15\u0B28\u0B2A\u0B30\u0B32\u0B33\u0B35\u0B39\u0B5C\u0B5D\u0B5F\u0B5F\u0B71\u0B71\u0C15"
      U"\u0C28\u0C2A\u0C39\u0C58\u0C5A\u0D15\u0D3A\u1000\u102A\u103F\u103F\u1050\u1055\u105A\u105D"
      U"\u1061\u1061\u1065\u1066\u106E\u1070\u1075\u1081\u108E\u108E\u1780\u17B3\u1A20\u1A54\u1B0B"
      U"\u1B0C\u1B13\u1B33\u1B45\u1B4C\u1B83\u1BA0\u1BAE\u1BAF\u1BBB\u1BBD\uA989\uA98B\uA98F\uA9B2"
      U"\uA9E0\uA9E4\uA9E7\uA9EF\uA9FA\uA9FE\uAA60\uAA6F\uAA71\uAA73\uAA7A\uAA7A\uAA7E\uAA7F\uAAE0"
      U"\uAAEA\uABC0\uABDA\U00010A00\U00010A00\U00010A10\U00010A13\U00010A15\U00010A17\U00010A19"
      U"\U00010A35\U00011103\U00011126\U00011144\U00011144\U00011147\U00011147\U00011380\U00011389"
      U"\U0001138B\U0001138B\U0001138E\U0001138E\U00011390\U000113B5\U00011900\U00011906\U00011909"
      U"\U00011909\U0001190C\U00011913\U00011915\U00011916\U00011918\U0001192F\U00011A00\U00011A00"
      U"\U00011A0B\U00011A32\U00011A50\U00011A50\U00011A5C\U00011A83\U00011F04\U00011F10\U00011F12"
      U"\U00011F33";
  constexpr std::u32string_view linkers =
      U"\u094D\u09CD\u0ACD\u0B4D\u0C4D\u0D4D\u1039\u17D2\u1A60\u1B44\u1BAB\uA9C0\uAAF6\U00010A3F"
      U"\U00011133\U000113D0\U0001193E\U00011A47\U00011A99\U00011F42";
  const auto isConsonant = [&](char32_t scalar) {
    std::size_t run = 0;
    while (run < consonants.size() && consonants[run + 1] < scalar) run += 2;
    return run < consonants.size() && consonants[run] <= scalar;
  };
  const auto isLinker = [&](char32_t scalar) { return linkers.contains(scalar); };
  const auto isMark = [&](char32_t scalar) {
    const auto type = utf8proc_get_property(static_cast<utf8proc_int32_t>(scalar))->boundclass;
    const bool extends = type == UTF8PROC_BOUNDCLASS_EXTEND || type == UTF8PROC_BOUNDCLASS_ZWJ;
    return (extends && scalar != 0x200C) || isLinker(scalar);
  };
  const auto afterConsonant = std::find_if(before.rbegin(), before.rend(), isConsonant).base();
  return isConsonant(next) && afterConsonant != before.begin() &&
         std::all_of(afterConsonant, before.end(), isMark) &&
         std::any_of(afterConsonant, before.end(), isLinker);
}

/// Of a valid text.
inline std::vector<std::string> characters(std::string_view text) {
  std::vector<std::string> clusters;
  std::u32string before;
  utf8proc_int32_t state = 0, scalar = 0;
  for (std::size_t start = 0, length = 0; start < text.size(); start += length) {
    const auto* rest = reinterpret_cast<const utf8proc_uint8_t*>(text.data()) + start;
    length = static_cast<std::size_t>(
        utf8proc_iterate(rest, static_cast<utf8proc_ssize_t>(text.size() - start), &scalar));
    const auto next = static_cast<char32_t>(scalar);
    if (before.empty() || (utf8proc_grapheme_break_stateful(
                               static_cast<utf8proc_int32_t>(before.back()), scalar, &state) &&
                           !isConjunct(before, next))) {
      clusters.emplace_back();
      before.clear();
    }
    clusters.back().append(text, start, length);
    before += next;
  }
  return clusters;
}

}  // namespace tessaloom::naive
