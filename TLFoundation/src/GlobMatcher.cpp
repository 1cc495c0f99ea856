#include "TLFoundation/GlobMatcher.h"

#include <algorithm>
#include <utility>

#include "CanonicalForm.h"
#include "Graphemes.h"
#include "TLFoundation/Unicode.h"
#include "UTF8.h"

namespace tessaloom {
namespace {

using Case = GlobPatternError::Case;

constexpr std::string_view doubleStar = "**";

/// Whether each byte is a character: ASCII without CR LF.
bool isPlain(std::string_view text) {
  return UTF8::endOfASCII(text, 0) == text.size() && text.find("\r\n") == std::string_view::npos;
}

bool isOneOf(std::string_view character, std::string_view candidates) {
  return character.size() == 1 && candidates.find(character[0]) != std::string_view::npos;
}

template <class Visit>
void forEachCharacter(std::string_view text, Visit visit) {
  for (std::size_t start = 0; start < text.size();) {
    const std::size_t end = endOfCharacter(text, start);
    visit(text.substr(start, end - start));
    start = end;
  }
}

/// The position of the next slash that is a character of its own, from the boundary `start` on.
std::size_t findSlash(std::string_view text, std::size_t start, bool plain) {
  if (plain) return text.find('/', start);
  while (start < text.size()) {
    const std::size_t end = endOfCharacter(text, start);
    if (text[start] == '/' && end == start + 1) return start;
    start = end;
  }
  return std::string_view::npos;
}

/// The text split at every slash, empty pieces included.
std::vector<std::string_view> pieces(std::string_view text, bool plain) {
  std::vector<std::string_view> result;
  result.reserve(1 + static_cast<std::size_t>(std::ranges::count(text, '/')));
  std::size_t start = 0;
  for (std::size_t slash = 0; (slash = findSlash(text, start, plain)) != std::string_view::npos;) {
    result.push_back(text.substr(start, slash - start));
    start = slash + 1;
  }
  result.push_back(text.substr(start));
  return result;
}

std::vector<std::string> canonicalCharacters(std::string_view text) {
  std::vector<std::string> characters;
  forEachCharacter(
      text, [&](std::string_view character) { characters.push_back(canonicalForm(character)); });
  return characters;
}

bool holdsDoubleStar(std::string_view segment) {
  bool afterStar = false;
  bool found = false;
  forEachCharacter(segment, [&](std::string_view character) {
    const bool isStar = isOneOf(character, "*");
    found = found || (isStar && afterStar);
    afterStar = isStar;
  });
  return found;
}

void checkSegment(std::string_view segment) {
  if (segment.empty()) throw GlobPatternError(Case::emptySegment);
  if (segment != doubleStar && holdsDoubleStar(segment)) {
    throw GlobPatternError(Case::doubleStarWithinSegment, segment);
  }
}

// A character is one byte of a plain text, or the canonical form of a cluster.

bool isSame(char a, char b) {
  return a == b;
}
bool isSame(const std::string& a, const std::string& b) {
  return a == b;
}
bool is(char character, char expected) {
  return character == expected;
}
bool is(const std::string& character, char expected) {
  return character.size() == 1 && character[0] == expected;
}

/// Both are texts of single bytes, or lists of canonical characters.
template <class Segment, class Piece>
bool matchesSegment(const Segment& segment, const Piece& piece) {
  constexpr auto none = std::string_view::npos;
  std::size_t p = 0;
  std::size_t s = 0;
  std::size_t star = none;   // where the last star stands in the segment
  std::size_t absorbed = 0;  // the position in the piece up to which it reaches
  while (s < piece.size()) {
    if (p < segment.size() && (is(segment[p], '?') || isSame(segment[p], piece[s]))) {
      ++p;
      ++s;
    } else if (p < segment.size() && is(segment[p], '*')) {
      star = p++;
      absorbed = s;
    } else if (star != none) {
      p = star + 1;
      s = ++absorbed;
    } else {
      return false;
    }
  }
  while (p < segment.size() && is(segment[p], '*')) ++p;
  return p == segment.size();
}

/// `texts` are the segments in the form in which they are compared with the pieces.
template <class Segment, class Piece>
bool matchesPieces(const std::vector<std::string>& segments, const std::vector<Segment>& texts,
                   const std::vector<Piece>& pieces) {
  // Flag i says that the segments so far match exactly the first i pieces.
  std::vector<bool> reached(pieces.size() + 1);
  reached[0] = true;
  for (std::size_t i = 0; i < segments.size(); ++i) {
    if (segments[i] == doubleStar) {
      std::fill(std::ranges::find(reached, true), reached.end(), true);
      continue;
    }
    // From right to left, so that one row serves as the old and the new one. Of the last segment
    // only the last flag is asked for.
    const std::size_t lowest = i + 1 < segments.size() ? 1 : pieces.size();
    for (std::size_t n = pieces.size(); n >= lowest; --n) {
      reached[n] = reached[n - 1] && matchesSegment(texts[i], pieces[n - 1]);
    }
    reached[0] = false;
  }
  return reached.back();
}

}  // namespace

const char* GlobPatternError::what() const noexcept {
  switch (case_) {
    case Case::doubleStarWithinSegment:
      return "doubleStarWithinSegment";
    case Case::unsupportedCharacter:
      return "unsupportedCharacter";
    case Case::emptyPattern:
      return "emptyPattern";
    case Case::leadingSlash:
      return "leadingSlash";
    case Case::trailingSlash:
      return "trailingSlash";
    case Case::emptySegment:
      return "emptySegment";
  }
  return "GlobPatternError";
}

void GlobMatcher::validate(std::string_view pattern) {
  if (pattern.empty()) throw GlobPatternError(Case::emptyPattern);
  const auto segments = pieces(pattern, isPlain(pattern));
  if (segments.front().empty()) throw GlobPatternError(Case::leadingSlash);
  if (segments.back().empty()) throw GlobPatternError(Case::trailingSlash);
  forEachCharacter(pattern, [](std::string_view character) {
    if (isOneOf(character, "\\[]")) {
      throw GlobPatternError(Case::unsupportedCharacter, character);
    }
  });
  for (const auto segment : segments) checkSegment(segment);
}

GlobMatcher::GlobMatcher(std::string pattern, bool caseInsensitive)
    : pattern_(std::move(pattern)), caseInsensitive_(caseInsensitive), plain_(isPlain(pattern_)) {
  validate(pattern_);
  const auto text = caseInsensitive ? Unicode::lowercased(pattern_) : pattern_;
  for (const auto segment : pieces(text, plain_)) {
    if (segment == doubleStar && !segments_.empty() && segments_.back() == doubleStar) continue;
    segments_.emplace_back(segment);
    characters_.push_back(canonicalCharacters(segment));
  }
}

bool GlobMatcher::matches(std::string_view path) const {
  if (path.empty()) return false;
  std::string lower;
  if (caseInsensitive_) path = lower = Unicode::lowercased(path);
  const bool plain = isPlain(path);
  const auto parts = pieces(path, plain);
  if (std::ranges::any_of(parts, &std::string_view::empty)) return false;
  if (plain && plain_) return matchesPieces(segments_, segments_, parts);

  std::vector<std::vector<std::string>> characters;
  characters.reserve(parts.size());
  for (const auto part : parts) characters.push_back(canonicalCharacters(part));
  return matchesPieces(segments_, characters_, characters);
}

bool operator==(const GlobMatcher& a, const GlobMatcher& b) {
  return a.caseInsensitive_ == b.caseInsensitive_ &&
         canonicalForm(a.pattern_) == canonicalForm(b.pattern_);
}

}  // namespace tessaloom

std::size_t std::hash<tessaloom::GlobMatcher>::operator()(
    const tessaloom::GlobMatcher& matcher) const {
  const auto text = std::hash<std::string>{}(tessaloom::canonicalForm(matcher.pattern()));
  return text * 2 + (matcher.caseInsensitive() ? 1 : 0);
}
