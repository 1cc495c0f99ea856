#include "TLFoundation/GlobMatcher.h"

#include <algorithm>
#include <array>
#include <span>
#include <utility>

#include "CanonicalForm.h"
#include "Graphemes.h"
#include "TLFoundation/Unicode.h"
#include "UTF8.h"

namespace tessaloom {
namespace {

using Kind = GlobPatternError::Kind;

using Characters = std::vector<std::string>;

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

/// Visits the pieces between the slashes in order, empty ones included.
template <class Visit>
void forEachPiece(std::string_view text, bool plain, Visit visit) {
  std::size_t start = 0;
  for (std::size_t slash = 0; (slash = findSlash(text, start, plain)) != std::string_view::npos;) {
    visit(text.substr(start, slash - start));
    start = slash + 1;
  }
  visit(text.substr(start));
}

/// At least the number of pieces: a slash that carries a mark separates none.
std::size_t boundOfPieces(std::string_view text) {
  return 1 + static_cast<std::size_t>(std::ranges::count(text, '/'));
}

/// A row of values, cleared at first: on the stack for a path of ordinary depth, on the heap for a
/// deeper one. Two allocations would cost as much as most matches.
template <class Value>
class Row {
 public:
  explicit Row(std::size_t size) : deep_(size > shallow_.size() ? size : 0) {}
  Value* data() { return deep_.empty() ? shallow_.data() : deep_.data(); }

 private:
  std::array<Value, 16> shallow_{};
  std::vector<Value> deep_;
};

Characters canonicalCharacters(std::string_view text) {
  Characters characters;
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
  if (segment.empty()) throw GlobPatternError(Kind::emptySegment);
  if (segment != doubleStar && holdsDoubleStar(segment)) {
    throw GlobPatternError(Kind::doubleStarWithinSegment, segment);
  }
}

// A character is one byte of a plain text, or the canonical form of a cluster.

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
  std::size_t star = none;   // where the last star is in the segment
  std::size_t absorbed = 0;  // the position in the piece up to which it reaches
  while (s < piece.size()) {
    if (p < segment.size() && (is(segment[p], '?') || segment[p] == piece[s])) {
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
                   std::span<const Piece> pieces) {
  // Flag i says that the segments so far match exactly the first i pieces.
  Row<char> row(pieces.size() + 1);
  const std::span reached(row.data(), pieces.size() + 1);
  reached.front() = 1;
  for (std::size_t i = 0; i < segments.size(); ++i) {
    if (segments[i] == doubleStar) {
      std::fill(std::ranges::find(reached, 1), reached.end(), 1);
      continue;
    }
    // From right to left, so that one row serves as the old and the new one. Of the last segment
    // only the last flag is asked for.
    const std::size_t lowest = i + 1 < segments.size() ? 1 : pieces.size();
    for (std::size_t n = pieces.size(); n >= lowest; --n) {
      reached[n] = reached[n - 1] != 0 && matchesSegment(texts[i], pieces[n - 1]) ? 1 : 0;
    }
    reached.front() = 0;
  }
  return reached.back() != 0;
}

}  // namespace

const char* GlobPatternError::what() const noexcept {
  switch (kind_) {
    case Kind::doubleStarWithinSegment:
      return "doubleStarWithinSegment";
    case Kind::unsupportedCharacter:
      return "unsupportedCharacter";
    case Kind::emptyPattern:
      return "emptyPattern";
    case Kind::leadingSlash:
      return "leadingSlash";
    case Kind::trailingSlash:
      return "trailingSlash";
    case Kind::emptySegment:
      return "emptySegment";
  }
  return "GlobPatternError";
}

void GlobMatcher::validate(std::string_view pattern) {
  if (pattern.empty()) throw GlobPatternError(Kind::emptyPattern);
  std::vector<std::string_view> segments;
  forEachPiece(pattern, isPlain(pattern), [&](auto segment) { segments.push_back(segment); });
  if (segments.front().empty()) throw GlobPatternError(Kind::leadingSlash);
  if (segments.back().empty()) throw GlobPatternError(Kind::trailingSlash);
  forEachCharacter(pattern, [](std::string_view character) {
    if (isOneOf(character, "\\[]")) {
      throw GlobPatternError(Kind::unsupportedCharacter, character);
    }
  });
  for (const auto segment : segments) checkSegment(segment);
}

GlobMatcher::GlobMatcher(std::string pattern, bool caseInsensitive)
    : pattern_(std::move(pattern)), caseInsensitive_(caseInsensitive), plain_(isPlain(pattern_)) {
  validate(pattern_);
  const auto text = caseInsensitive ? Unicode::lowercased(pattern_) : pattern_;
  forEachPiece(text, plain_, [&](std::string_view segment) {
    if (segment == doubleStar && !segments_.empty() && segments_.back() == doubleStar) return;
    segments_.emplace_back(segment);
    characters_.push_back(canonicalCharacters(segment));
  });
}

bool GlobMatcher::matches(std::string_view path) const {
  if (path.empty()) return false;
  std::string lower;
  if (caseInsensitive_) path = lower = Unicode::lowercased(path);
  const bool plain = isPlain(path);

  Row<std::string_view> row(boundOfPieces(path));
  std::size_t count = 0;
  bool hasEmptyPiece = false;
  forEachPiece(path, plain, [&](std::string_view piece) {
    row.data()[count++] = piece;
    hasEmptyPiece = hasEmptyPiece || piece.empty();
  });
  if (hasEmptyPiece) return false;
  const std::span<const std::string_view> pieces(row.data(), count);
  if (plain && plain_) return matchesPieces(segments_, segments_, pieces);

  std::vector<Characters> characters;
  characters.reserve(count);
  for (const auto piece : pieces) characters.push_back(canonicalCharacters(piece));
  return matchesPieces(segments_, characters_, std::span<const Characters>(characters));
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
