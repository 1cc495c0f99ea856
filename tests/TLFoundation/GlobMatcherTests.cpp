#include <map>
#include <set>
#include <string>
#include <tuple>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include "TLFoundation/GlobMatcher.h"
#include "TLFoundation/NaiveGlob.h"
#include "support/Repeated.h"
#include "support/Thrown.h"

namespace tessaloom {
namespace {

TEST(GlobMatcherTests, KeepsThePatternAndItsSegments) {
  const GlobMatcher matcher("A/**/**/**/b\u0130/**", true);
  EXPECT_EQ(matcher.pattern(), "A/**/**/**/b\u0130/**");
  EXPECT_EQ(matcher.segments(), (std::vector<std::string>{"a", "**", "bi\u0307", "**"}));
}

TEST(GlobMatcherTests, Matches) {
  const std::tuple<const char*, const char*, bool, bool> rows[] = {
      {"*.MD", "notes.md", false, true},
      {"*.md", "NOTES.MD", false, true},
      // One user-perceived character, whatever its scalars.
      {"?", "\U0001F468\u200D\U0001F469\u200D\U0001F467", true, true},
      {"?", "\u0915\u094D\u0937", true, true},
      {"?/\r\n", "\r\n/\r\n", true, true},
      {"?????", "\ra\n\r\u00E9", true, true},
      // Canonical equivalence.
      {"a\u0323\u0307", "a\u0307\u0323", true, true},
      {"\u1100\u1161\u11A8", "\uAC01", true, true},
      {"K", "\u212A", true, true},
      // Case without context, and without folding.
      {"\u00C9T\u00C9", "e\u0301t\u00E9", false, true},
      {"\u0130", "i\u0307", false, true},
      {"\u03A3", "\u03C2", false, false},
      {"stra\u00DFe", "STRASSE", false, false},
      // Ill-formed parts are one U+FFFD each.
      {"?\uFFFD", "\xF0\x9F\xFF", true, true},
  };
  for (const auto& [pattern, path, matches, matchesInAnyCase] : rows) {
    EXPECT_EQ(GlobMatcher(pattern, false).matches(path), matches) << pattern;
    EXPECT_EQ(GlobMatcher(pattern, true).matches(path), matchesInAnyCase) << pattern;
  }
}

/// All texts of up to `length` letters.
std::set<std::string> textsOf(const std::vector<std::string>& letters, std::size_t length) {
  std::set<std::string> texts{""};
  for (; length > 0; --length) {
    for (const auto& text : std::set(texts)) {
      for (const auto& letter : letters) texts.insert(text + letter);
    }
  }
  return texts;
}

void compareWithNaive(const std::set<std::string>& patterns, const std::set<std::string>& paths) {
  std::map<std::string, std::vector<naive::Piece>> pieces;
  for (const auto& path : paths) pieces[path] = naive::pieces(path);
  for (const auto& pattern : patterns) {
    auto failure = thrownBy<GlobPatternError>([&] { GlobMatcher(pattern, false); });
    if (failure) failure.emplace(failure->kind(), naive::decomposed(failure->offending()));
    ASSERT_EQ(failure, naive::failure(pattern)) << pattern;
    if (failure) continue;
    const GlobMatcher matcher(pattern, false);
    const auto segments = naive::pieces(pattern);
    for (const auto& [path, split] : pieces) {
      const bool expected = naive::matches(segments, split);
      ASSERT_EQ(matcher.matches(path), expected) << pattern << " against " << path;
    }
  }
}

TEST(GlobMatcherTests, AgreesWithTheNaiveMatcher) {
  compareWithNaive(textsOf({"a", "*", "?", "/"}, 4), textsOf({"a", "b", "*", "/"}, 3));
  compareWithNaive(textsOf({"a", "*", "b"}, 5), textsOf({"a", "b", "*"}, 4));
  compareWithNaive(textsOf({"a", "**", "/"}, 5), textsOf({"a", "b", "/"}, 4));
  compareWithNaive(textsOf({"a", "**", "/", "[", "]", "\\"}, 4), {});
  const std::vector<std::string> marked{"e", "\u0301", "\u00E9", "*", "/"};
  compareWithNaive(textsOf(marked, 4), textsOf(marked, 3));
  compareWithNaive(textsOf({"\u0915", "\u094D", "?"}, 4),
                   textsOf({"\u0915", "\u094D", "\u093C", "\u200C"}, 4));
  compareWithNaive(textsOf({"[", "\u0301", "\u00E9", "**"}, 3), {});
}

TEST(GlobMatcherTests, StaysFastOnHostilePatterns) {
  EXPECT_FALSE(GlobMatcher(repeated("*a", 100) + "*b", false).matches(repeated("a", 1'000)));
  EXPECT_FALSE(GlobMatcher(repeated("**/*a*/", 100) + "c", false)
                   .matches(repeated("aaaaaaaaab/", 100) + "d"));
  // Marks in an order that sorting by exchange takes quadratic time for.
  const auto marks = "e" + repeated("\u0301", 50'000) + repeated("\u0323", 50'000);
  EXPECT_FALSE(GlobMatcher("\u00E9", false).matches(marks));
}

TEST(GlobMatcherTests, EqualByPatternAndCase) {
  const GlobMatcher matcher("\u00E9/*", false);
  EXPECT_EQ(matcher, GlobMatcher("e\u0301/*", false));
  EXPECT_NE(matcher, GlobMatcher("\u00E9/*", true));
  EXPECT_EQ((std::unordered_set<GlobMatcher>{matcher, GlobMatcher("e\u0301/*", false)}.size()), 1U);
}

}  // namespace
}  // namespace tessaloom
