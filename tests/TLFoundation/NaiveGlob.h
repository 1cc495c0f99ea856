#pragma once

#include <cstddef>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <utf8proc.h>

#include "TLFoundation/GlobMatcher.h"
#include "TLFoundation/Unicode.h"

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

inline std::vector<std::string> characters(const std::string& text) {
  std::vector<std::string> clusters;
  utf8proc_int32_t state = 0;
  utf8proc_int32_t previous = -1;
  for (std::size_t position = 0; position < text.size();) {
    utf8proc_int32_t scalar = 0;
    const auto length =
        utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()) + position,
                         static_cast<utf8proc_ssize_t>(text.size() - position), &scalar);
    if (previous < 0 || utf8proc_grapheme_break_stateful(previous, scalar, &state)) {
      clusters.emplace_back();
    }
    clusters.back().append(text, position, static_cast<std::size_t>(length));
    position += static_cast<std::size_t>(length);
    previous = scalar;
  }
  for (auto& cluster : clusters) cluster = decomposed(cluster);
  return clusters;
}

/// The pieces of a valid text between its slashes.
inline std::vector<Piece> pieces(const std::string& text) {
  std::vector<Piece> result(1);
  for (auto& character : characters(text)) {
    if (character == "/") {
      result.emplace_back();
    } else {
      result.back().push_back(std::move(character));
    }
  }
  return result;
}

inline std::optional<GlobPatternError::Case> failure(const std::string& pattern) {
  using enum GlobPatternError::Case;
  const auto all = characters(pattern);
  if (all.empty()) return emptyPattern;
  if (all.front() == "/") return leadingSlash;
  if (all.back() == "/") return trailingSlash;
  for (const auto& one : all) {
    if (one == "\\" || one == "[" || one == "]") return unsupportedCharacter;
  }
  for (const auto& segment : pieces(pattern)) {
    if (segment.empty()) return emptySegment;
    for (std::size_t i = 1; segment.size() > 2 && i < segment.size(); ++i) {
      if (segment[i - 1] == "*" && segment[i] == "*") return doubleStarWithinSegment;
    }
  }
  return std::nullopt;
}

inline bool matchesSegment(const Piece& segment, const Piece& piece) {
  // possible[p][s]: the rest of the segment from p matches the rest of the piece from s.
  std::vector<std::vector<bool>> possible(segment.size() + 1, std::vector<bool>(piece.size() + 1));
  for (std::size_t p = segment.size() + 1; p-- > 0;) {
    for (std::size_t s = piece.size() + 1; s-- > 0;) {
      if (p == segment.size()) {
        possible[p][s] = s == piece.size();
      } else if (s < piece.size() && (segment[p] == "?" || segment[p] == piece[s])) {
        possible[p][s] = possible[p + 1][s + 1];  // a literal, even if it is a star
      } else if (segment[p] == "*") {
        for (std::size_t end = s; end <= piece.size(); ++end) {
          if (possible[p + 1][end]) possible[p][s] = true;
        }
      }
    }
  }
  return possible[0][0];
}

inline bool matches(const std::vector<Piece>& pattern, const std::vector<Piece>& path) {
  // possible[i][n]: the segments from i match the pieces from n.
  std::vector<std::vector<bool>> possible(pattern.size() + 1, std::vector<bool>(path.size() + 1));
  for (std::size_t i = pattern.size() + 1; i-- > 0;) {
    for (std::size_t n = path.size() + 1; n-- > 0;) {
      const bool hasPiece = n < path.size();
      if (i == pattern.size()) {
        possible[i][n] = !hasPiece;
      } else if (pattern[i] == Piece{"*", "*"}) {
        possible[i][n] = possible[i + 1][n] || (hasPiece && possible[i][n + 1]);
      } else {
        possible[i][n] = hasPiece && possible[i + 1][n + 1] && matchesSegment(pattern[i], path[n]);
      }
    }
  }
  return possible[0][0];
}

/// Whether a path of these pieces can match anything at all.
inline bool isPath(const std::vector<Piece>& path) {
  for (const auto& piece : path) {
    if (piece.empty()) return false;
  }
  return true;
}

}  // namespace tessaloom::naive
