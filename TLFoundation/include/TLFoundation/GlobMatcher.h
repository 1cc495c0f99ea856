#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tessaloom {

/// What is wrong with a glob pattern. No text is attached: the caller presents the case.
///
/// Two errors are equal when their kind and their offending text are.
class GlobPatternError : public std::exception {
 public:
  enum class Kind : std::uint8_t {
    doubleStarWithinSegment,  ///< A segment is ** and more, as in a**b; `offending` is the segment.
    unsupportedCharacter,     ///< A backslash or square bracket, which is `offending`.
    emptyPattern,
    leadingSlash,
    trailingSlash,
    emptySegment,  ///< Two slashes are adjacent.
  };

  explicit GlobPatternError(Kind kind, std::string_view offending = {})
      : kind_(kind), offending_(offending) {}

  Kind kind() const { return kind_; }
  const std::string& offending() const { return offending_; }
  /// The name of the kind, for logs.
  const char* what() const noexcept override;

  friend bool operator==(const GlobPatternError& a, const GlobPatternError& b) {
    return a.kind_ == b.kind_ && a.offending_ == b.offending_;
  }

 private:
  Kind kind_;
  std::string offending_;
};

/// Matches slash-separated relative paths against a pattern of literal characters, `?` for any one
/// character, `*` for any run of characters within a segment, and the whole segment `**` for any
/// number of segments, none included. Character classes and escapes are refused.
///
/// Text is UTF-8; an ill-formed part counts as U+FFFD. Characters are user-perceived ones (extended
/// grapheme clusters), equal when they are canonically equivalent: a slash that carries an accent
/// separates nothing. Letter case is ignored by comparing full, contextless lower case.
///
/// A `*` of the pattern that is compared with a star in the path matches that star alone, as a
/// literal would: `*` matches neither "*x" nor "**", but does match "x*".
///
/// Costs at most segments × pieces matches of one segment against one piece, each at most the
/// product of their lengths; nothing recurses. A matcher is a value and safe to share between
/// threads.
class GlobMatcher {
 public:
  /// Throws the first GlobPatternError, in this order: emptyPattern, leadingSlash, trailingSlash,
  /// the first unsupportedCharacter, and then, segment by segment, emptySegment or
  /// doubleStarWithinSegment.
  static void validate(std::string_view pattern);

  /// Throws what `validate` throws.
  GlobMatcher(std::string pattern, bool caseInsensitive);

  /// Whether the whole path matches. A path that is empty or has an empty piece (a leading,
  /// trailing or doubled slash) never does.
  bool matches(std::string_view path) const;

  /// The pattern as it was passed in.
  const std::string& pattern() const { return pattern_; }
  bool caseInsensitive() const { return caseInsensitive_; }
  /// The pattern split at its slashes, in lower case when case is ignored, with each run of `**`
  /// as one.
  const std::vector<std::string>& segments() const { return segments_; }

  /// Texts compare by canonical equivalence, as in matching. (The segments follow from the rest.)
  friend bool operator==(const GlobMatcher& a, const GlobMatcher& b);

 private:
  std::string pattern_;
  bool caseInsensitive_;
  std::vector<std::string> segments_;
  bool plain_;                                        // every character is one byte
  std::vector<std::vector<std::string>> characters_;  // of each segment, in canonical form
};

}  // namespace tessaloom

template <>
struct std::hash<tessaloom::GlobMatcher> {
  std::size_t operator()(const tessaloom::GlobMatcher& matcher) const;
};
