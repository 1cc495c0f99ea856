#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include "TLFoundation/GlobMatcher.h"
#include "TLFoundation/NaiveGlob.h"

namespace tessaloom {
namespace {

using Case = GlobPatternError::Case;

std::optional<GlobPatternError> failureOf(const std::string& pattern) {
  try {
    GlobMatcher(pattern, false);
    return std::nullopt;
  } catch (const GlobPatternError& error) {
    return error;
  }
}

TEST(GlobMatcherTests, RefusesInTheGivenOrder) {
  struct Row {
    std::string pattern;
    Case expected;
    std::string offending;
  };
  const std::vector<Row> rows{
      {"", Case::emptyPattern, ""},
      {"/[", Case::leadingSlash, ""},
      {"a//[/", Case::trailingSlash, ""},
      {"a//x]y[abc]", Case::unsupportedCharacter, "]"},
      {"src/[abc]", Case::unsupportedCharacter, "["},
      {"**x\\*", Case::unsupportedCharacter, "\\"},
      {"a//b**", Case::emptySegment, ""},
      {"b**//a", Case::doubleStarWithinSegment, "b**"},
      {"x/a**b", Case::doubleStarWithinSegment, "a**b"},
      {"**.md", Case::doubleStarWithinSegment, "**.md"},
      {"\u00E9//\u00E9", Case::emptySegment, ""},
      {"\u00E9/[", Case::unsupportedCharacter, "["},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(failureOf(row.pattern), GlobPatternError(row.expected, row.offending)) << row.pattern;
  }
  // A mark makes another character of what it follows.
  for (const auto* pattern : {"/\u0301a", "a/\u0301", "[\u0301", "**\u0301", "a/\u0301/b"}) {
    EXPECT_EQ(failureOf(pattern), std::nullopt) << pattern;
  }
}

TEST(GlobMatcherTests, KeepsThePatternAndItsSegments) {
  const GlobMatcher matcher("A/**/**/**/b\u0130/**", true);
  EXPECT_EQ(matcher.pattern(), "A/**/**/**/b\u0130/**");
  EXPECT_EQ(matcher.segments(), (std::vector<std::string>{"a", "**", "bi\u0307", "**"}));
  EXPECT_EQ(GlobMatcher("A/**/*", false).segments(), (std::vector<std::string>{"A", "**", "*"}));
}

TEST(GlobMatcherTests, Matches) {
  struct Row {
    const char* pattern;
    bool caseInsensitive;
    const char* path;
    bool expected;
  };
  const std::vector<Row> rows{
      {"docs/*.md", false, "docs/readme.md", true},
      {"docs/**/*.md", false, "docs/a/b/readme.md", true},
      {"**", false, "", false},
      {"**/a/**/b/**", false, "x/a/a/y/b", true},
      {"*.MD", true, "notes.md", true},
      {"*.MD", false, "notes.md", false},
      {"*.md", true, "NOTES.MD", true},
      // One user-perceived character, whatever its scalars.
      {"?", false, "e\u0301", true},
      {"?", false, "\U0001F468\u200D\U0001F469\u200D\U0001F467", true},
      {"?", false, "\r\n", true},
      {"??", false, "\r\n", false},
      {"??", false, "\n\r", true},
      {"*e", false, "e\u0301", false},
      // Canonical equivalence.
      {"\u00E9", false, "e\u0301", true},
      {"a\u0323\u0307", false, "a\u0307\u0323", true},
      {"\u1100\u1161\u11A8", false, "\uAC01", true},
      {"K", false, "\u212A", true},
      {";", false, "\u037E", true},
      {"\u00E9*", false, "e\u0301x", true},
      // Case without context, and without folding.
      {"\u00C9T\u00C9", true, "e\u0301t\u00E9", true},
      {"k", true, "\u212A", true},
      {"\u0130", true, "i\u0307", true},
      {"\u03A3", true, "\u03C2", false},
      {"stra\u00DFe", true, "STRASSE", false},
      // A slash with a mark is no separator, so these are single pieces.
      {"*", false, "a/\u0301b", true},
      {"a/*", false, "a/\u0301b", false},
      // Ill-formed parts are one U+FFFD each.
      {"?\uFFFD", false, "\xF0\x9F\xFF", true},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(GlobMatcher(row.pattern, row.caseInsensitive).matches(row.path), row.expected)
        << row.pattern << " against " << row.path;
  }
}

/// All texts of up to `length` letters.
std::vector<std::string> textsOf(const std::vector<std::string>& letters, std::size_t length) {
  std::vector<std::string> texts{""};
  std::size_t begin = 0;
  for (std::size_t i = 0; i < length; ++i) {
    const std::size_t end = texts.size();
    for (; begin < end; ++begin) {
      for (const auto& letter : letters) texts.push_back(texts[begin] + letter);
    }
  }
  return texts;
}

void compareWithNaive(const std::vector<std::string>& patterns,
                      const std::vector<std::string>& paths) {
  std::vector<std::vector<naive::Piece>> splitPaths;
  for (const auto& path : paths) splitPaths.push_back(naive::pieces(path));
  for (const auto& pattern : patterns) {
    const auto failure = failureOf(pattern);
    ASSERT_EQ(failure ? std::optional(failure->errorCase()) : std::nullopt, naive::failure(pattern))
        << pattern;
    if (failure) continue;
    const GlobMatcher matcher(pattern, false);
    const auto segments = naive::pieces(pattern);
    for (std::size_t i = 0; i < paths.size(); ++i) {
      const bool expected = naive::isPath(splitPaths[i]) && naive::matches(segments, splitPaths[i]);
      ASSERT_EQ(matcher.matches(paths[i]), expected) << pattern << " against " << paths[i];
    }
  }
}

TEST(GlobMatcherTests, AgreesWithTheNaiveMatcher) {
  compareWithNaive(textsOf({"a", "*", "?", "/", "["}, 5), textsOf({"a", "b", "*", "/"}, 4));
  compareWithNaive(textsOf({"a", "*", "b"}, 6), textsOf({"a", "b", "*"}, 5));
}

TEST(GlobMatcherTests, AgreesWithTheNaiveMatcherOnMarks) {
  const std::vector<std::string> letters{"e", "\u0301", "\u00E9", "*", "/"};
  compareWithNaive(textsOf(letters, 4), textsOf(letters, 3));
}

TEST(GlobMatcherTests, StaysFastOnHostilePatterns) {
  std::string stars;
  std::string deep;
  std::string path;
  for (int i = 0; i < 200; ++i) stars += "*a";
  for (int i = 0; i < 200; ++i) deep += "**/*a*/";
  for (int i = 0; i < 200; ++i) path += "aaaaaaaaab/";
  EXPECT_FALSE(GlobMatcher(stars + "*b", false).matches(std::string(5'000, 'a')));
  EXPECT_FALSE(GlobMatcher(deep + "c", false).matches(path + "d"));
  // Marks in an order that sorting by exchange takes quadratic time for.
  std::string marks = "e";
  for (int i = 0; i < 100'000; ++i) marks += "\u0301";
  for (int i = 0; i < 100'000; ++i) marks += "\u0323";
  EXPECT_FALSE(GlobMatcher("\u00E9", false).matches(marks));
  EXPECT_TRUE(GlobMatcher("?", false).matches(marks));
}

TEST(GlobMatcherTests, EqualByPatternAndCase) {
  const GlobMatcher matcher("\u00E9/*", false);
  EXPECT_EQ(matcher, GlobMatcher("e\u0301/*", false));
  EXPECT_NE(matcher, GlobMatcher("\u00E9/*", true));
  EXPECT_NE(matcher, GlobMatcher("\u00C9/*", false));
  EXPECT_NE(matcher, GlobMatcher("\u00E9/**", false));
  EXPECT_EQ((std::unordered_set<GlobMatcher>{matcher, GlobMatcher("e\u0301/*", false)}.size()), 1U);
}

}  // namespace
}  // namespace tessaloom
