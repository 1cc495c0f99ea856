#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <utf8proc.h>

#include "TLFoundation/DisplayString.h"
#include "TLFoundation/NaiveCharacters.h"
#include "TLFoundation/Unicode.h"
#include "support/Repeated.h"

using namespace std::string_literals;

namespace tessaloom {
namespace {

std::string encoded(char32_t scalar) {
  std::array<utf8proc_uint8_t, 4> bytes{};
  const auto length = utf8proc_encode_char(static_cast<utf8proc_int32_t>(scalar), bytes.data());
  return {bytes.begin(), bytes.begin() + length};
}

/// Of the planes that have characters.
template <class Visit>
void forEveryScalar(Visit visit) {
  for (char32_t scalar = 0; scalar <= 0xE0FFF; ++scalar) {
    if (scalar == 0xD800) scalar = 0xE000;
    if (scalar == 0x34000) scalar = 0xE0000;
    visit(scalar);
  }
}

/// As the JSON library repairs what it writes.
std::string repairedByLibrary(const std::string& text) {
  using nlohmann::json;
  return json::parse(json(text).dump(-1, ' ', false, json::error_handler_t::replace));
}

TEST(UnicodeTests, RepairsAsTheJSONLibraryDoes) {
  // Both sides of every boundary of the table of well-formed sequences.
  const std::string alphabet = "A\x80\x8F\x90\x9F\xA0\xBF\xC1\xC2\xE0\xE1\xED\xF0\xF1\xF4\xF5";
  const auto ascii = "0123456789\0"s;  // longer than the word that is examined at once
  std::vector<std::string> texts{""};
  for (std::size_t next = 0; next < texts.size(); ++next) {
    const std::string text = texts[next];
    const auto expected = repairedByLibrary(text);
    for (const auto& around : {""s, ascii}) {
      ASSERT_EQ(Unicode::repairUTF8(around + text + around), around + expected + around);
      ASSERT_EQ(Unicode::isValidUTF8(around + text + around), text == expected);
    }
    if (text.size() == 4) continue;
    for (const char byte : alphabet) texts.push_back(text + byte);
  }
}

TEST(UnicodeTests, CountsCharacters) {
  const std::tuple<const char*, std::string, std::size_t> rows[] = {
      {"empty", "", 0},
      {"NUL is a character", "a\0b"s, 3},
      {"CR LF is one", "\r\r\n", 2},
      {"CR LF across a word", "0123456\r\n0123456789", 18},
      {"CR LF before an accent", "abcdefgh\r\n\u0301", 10},
      {"accent on the last ASCII letter", "0123456789\u0301x", 11},
      {"flags pair from the left", "\U0001F1E9\U0001F1EA\U0001F1EB\U0001F1F7\U0001F1EC", 3},
      {"family", "\U0001F468\u200D\U0001F469\u200D\U0001F467", 1},
      {"joiner after a letter joins nothing", "a\u200D\U0001F467", 2},
      {"letter, two marks, spacing mark", "\u0915\u0301\u0302\u0903e\u0301\u0302", 2},
      {"mark after a prepended sign", "\u0600a\u0301", 1},
      {"consonants that a virama joins, a nukta and joiner allowed, a non-joiner not",
       "\u0915\u094D\u0937\u0915\u094D\u093C\u200D\u0937\u0915\u094D\u200C\u0937", 4},
      {"by a virama only, also behind a nukta", "\u0915\u093C\u0937\u093C\u094D\u0915", 2},
      {"a vowel is no consonant; Khmer", "\u0905\u094D\u0915\u1781\u17D2\u1798\u17C2\u179A", 4},
      {"hangul syllable from its letters", "\u1100\u1161\u11A8\u4E2D\uAC00\u11A8", 3},
      {"an ill-formed part is one", "a\xF0\x9F\x98\xFF", 3},
  };
  for (const auto& [name, text, characters] : rows) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Unicode::characterCount(text), characters);
    EXPECT_EQ(Unicode::lastCharacters(text, characters + 1), text);
  }
}

/// By the sums of the scalars that Unicode 17 has as Consonant and Linker of its property
/// Indic_Conjunct_Break.
TEST(UnicodeTests, JoinsTheConsonantsOfEveryScript) {
  std::uint64_t consonants = 0, linkers = 0;
  forEveryScalar([&](char32_t scalar) {
    if (Unicode::characterCount(encoded(scalar) + "\u094D\u0915") == 1) consonants += scalar;
    const bool isLinker = Unicode::characterCount("\u0915" + encoded(scalar) + "\u0915") == 1;
    if (isLinker && scalar != 0x113D0) linkers += scalar;  // utf8proc 2.8 does not know that one.
  });
  EXPECT_EQ(consonants, 28'450'205U);
  EXPECT_EQ(linkers, 563'632U);
}

TEST(UnicodeTests, LastCharactersOfALongTextAreCountedFromItsEnd) {
  auto text =
      repeated("\U0001F468\u200D\U0001F469\u200D\U0001F467\r\n\U0001F1E9\U0001F1EA\u0600ab", 40);
  for (int ending = 0; ending < 30; ++ending) {
    const auto total = Unicode::characterCount(text);
    for (std::size_t count = 0; count <= total; ++count) {
      const auto last = Unicode::lastCharacters(text, count);
      ASSERT_TRUE(text.ends_with(last));
      ASSERT_EQ(Unicode::characterCount(text.substr(0, text.size() - last.size())), total - count);
    }
    text += 'x';
  }
}

TEST(UnicodeTests, TrimsTheWhiteSpaceProperty) {
  // Unicode 15, PropList.txt, White_Space.
  const std::u32string whiteSpace =
      U"\t\n\v\f\r \x85\xA0\u1680\u2000\u2001\u2002\u2003\u2004\u2005\u2006\u2007\u2008\u2009\u200A"
      U"\u2028\u2029\u202F\u205F\u3000";
  forEveryScalar([&](char32_t scalar) {
    const auto text = encoded(scalar) + "x y" + encoded(scalar);
    const bool isSpace = whiteSpace.find(scalar) != std::u32string::npos;
    EXPECT_EQ(Unicode::trimmed(text), isSpace ? "x y" : text);
  });
  EXPECT_EQ(Unicode::trimmed(" \n\u2003\t"), "");
  EXPECT_EQ(Unicode::trimmed("\u0300\xA0 "), "\u0300\xA0");  // the end of a letter is not a space
}

TEST(UnicodeTests, LowercasesFullyAndWithoutContext) {
  EXPECT_EQ(Unicode::lowercased("README.MD\0@Z[\u0080"s), "readme.md\0@z[\u0080"s);
  EXPECT_EQ(Unicode::lowercased("\u00C4\u1E9E\u01C5\U00010400"), "\u00E4\u00DF\u01C6\U00010428");
}

TEST(DisplayStringTests, CleansAndCuts) {
  const std::tuple<const char*, std::string, std::int64_t, std::string, std::string> rows[] = {
      {"NUL and escape sequence", "a\0b\x1B[31m\x7F"s, 10, "ab[31m", "ab[31m"},
      {"CR LF becomes LF", "a\r\nb", 10, "ab", "a\nb"},
      {"cut without a mark", "abcd", 3, "abc", "abc"},
      {"no room", "abc", 0, "", ""},
      {"dropped scalars do not count", "\u200B\u200Ba\tb", 2, "ab", "a\t"},
      {"cut between letter and accent", "xe\u0301", 2, "xe", "xe"},
      {"ill-formed parts count one each", "\xE2\x80\xFF\xC3z", 3, "\uFFFD\uFFFD\uFFFD",
       "\uFFFD\uFFFD\uFFFD"},
  };
  for (const auto& [name, text, limit, line, lines] : rows) {
    const auto longer = text + "behind it";
    const auto view = std::string_view(longer).substr(0, text.size());
    EXPECT_EQ(DisplayString::singleLine(view, limit), line) << name;
    EXPECT_EQ(DisplayString::multiLine(view, limit), lines) << name;
  }
  EXPECT_DEATH(DisplayString::singleLine("", -1), "limit is negative");
}

TEST(DisplayStringTests, DropsExactlyTheControlsAndThe17Invisible) {
  const std::u32string invisible =
      U"\u200B\u200C\u200D\u200E\u200F\u202A\u202B\u202C\u202D\u202E\u2066\u2067\u2068\u2069\u2028"
      U"\u2029\uFEFF";
  forEveryScalar([&](char32_t scalar) {
    const bool isControl = scalar < 0x20 || (scalar >= 0x7F && scalar <= 0x9F);
    const auto text = encoded(scalar);
    const auto line = isControl || invisible.contains(scalar) ? "" : text;
    ASSERT_EQ(DisplayString::singleLine(text, 1), line) << text;
    ASSERT_EQ(DisplayString::multiLine(text, 1), text == "\t" || text == "\n" ? text : line);
  });
}

}  // namespace
}  // namespace tessaloom
