#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <numeric>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <utf8proc.h>

#include "TLFoundation/GlobMatcher.h"
#include "TLFoundation/NaiveCharacters.h"

/// Globs from their definition: every character is a string in canonical form, every choice of what
/// a star stands for is tried, and no text has a short cut.
namespace tessaloom::naive {

using Piece = std::vector<std::string>;  // characters

inline std::string decomposed(std::string_view character) {
  utf8proc_uint8_t* form = nullptr;
  const auto length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(character.data()),
                                   static_cast<utf8proc_ssize_t>(character.size()), &form,
                                   static_cast<utf8proc_option_t>(UTF8PROC_DECOMPOSE));
  std::string result(reinterpret_cast<const char*>(form), static_cast<std::size_t>(length));
  std::free(form);
  return result;
}

inline std::vector<std::string> canonicalCharacters(std::string_view text) {
  auto clusters = characters(text);
  for (auto& cluster : clusters) cluster = decomposed(cluster);
  return clusters;
}

/// The pieces of a valid text between its slashes.
inline std::vector<Piece> pieces(const std::string& text) {
  std::vector<Piece> result(1);
  for (const auto& character : canonicalCharacters(text)) {
    if (character == "/") {
      result.emplace_back();
    } else {
      result.back().push_back(character);
    }
  }
  return result;
}

/// What is wrong with a pattern, with the offending text decomposed.
inline std::optional<GlobPatternError> failure(const std::string& pattern) {
  using enum GlobPatternError::Kind;
  const auto all = canonicalCharacters(pattern);
  if (all.empty()) return GlobPatternError(emptyPattern);
  if (all.front() == "/") return GlobPatternError(leadingSlash);
  if (all.back() == "/") return GlobPatternError(trailingSlash);
  for (const auto& one : all) {
    if (one == "\\" || one == "[" || one == "]") return GlobPatternError(unsupportedCharacter, one);
  }
  for (const auto& segment : pieces(pattern)) {
    if (segment.empty()) return GlobPatternError(emptySegment);
    const auto text = std::accumulate(segment.begin(), segment.end(), std::string());
    const auto doubleStar = std::ranges::search(segment, Piece{"*", "*"});
    if (segment.size() > 2 && !doubleStar.empty()) {
      return GlobPatternError(doubleStarWithinSegment, text);
    }
  }
  return std::nullopt;
}

/// Whether the pattern matches the whole text, when `isOne` says what stands for one element of it
/// and `isStar` what stands for any number of them. What can be one element is not also a star.
template <class Element, class IsOne, class IsStar>
bool matchesAll(const std::vector<Element>& pattern, const std::vector<Element>& text, IsOne isOne,
                IsStar isStar) {
  // possible[p][t]: the rest of the pattern from p matches the rest of the text from t.
  std::vector<std::vector<bool>> possible(pattern.size() + 1, std::vector<bool>(text.size() + 1));
  possible.back().back() = true;
  for (std::size_t p = pattern.size(); p-- > 0;) {
    for (std::size_t t = text.size() + 1; t-- > 0;) {
      if (t < text.size() && isOne(pattern[p], text[t])) {
        possible[p][t] = possible[p + 1][t + 1];
      } else if (isStar(pattern[p])) {
        for (std::size_t end = t; end <= text.size(); ++end) {
          if (possible[p + 1][end]) possible[p][t] = true;
        }
      }
    }
  }
  return possible[0][0];
}

/// A path with an empty piece never matches.
inline bool matches(const std::vector<Piece>& pattern, const std::vector<Piece>& path) {
  const auto isDoubleStar = [](const Piece& segment) { return segment == Piece{"*", "*"}; };
  const auto isCharacter = [](const std::string& one, const std::string& character) {
    return one == "?" || one == character;  // a literal, even if it is a star
  };
  const auto matchesPiece = [&](const Piece& segment, const Piece& piece) {
    return !isDoubleStar(segment) && matchesAll(segment, piece, isCharacter,
                                                [](const std::string& one) { return one == "*"; });
  };
  return std::ranges::none_of(path, &Piece::empty) &&
         matchesAll(pattern, path, matchesPiece, isDoubleStar);
}

}  // namespace tessaloom::naive
