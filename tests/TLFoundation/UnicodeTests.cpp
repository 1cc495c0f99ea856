#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "TLFoundation/Scalars.h"
#include "TLFoundation/Unicode.h"

using namespace std::string_literals;

namespace tessaloom {
namespace {

/// The proper beginnings of all well-formed sequences; the last byte of none of them matters.
std::set<std::string, std::less<>> beginningsOfSequences() {
  std::set<std::string, std::less<>> beginnings;
  for (char32_t scalar = 0x80; scalar <= 0x10FFFF; scalar += 0x40) {
    if (isSurrogate(scalar)) continue;
    const auto text = encoded(scalar);
    for (std::size_t length = 1; length < text.size(); ++length) {
      beginnings.insert(text.substr(0, length));
    }
  }
  return beginnings;
}

bool isSequence(std::string_view bytes) {
  char32_t scalar = static_cast<unsigned char>(bytes[0]);
  if (bytes.size() > 1) scalar &= 0x7FU >> bytes.size();
  for (const char byte : bytes.substr(1))
    scalar = scalar << 6 | (static_cast<char32_t>(byte) & 0x3F);
  return scalar <= 0x10FFFF && !isSurrogate(scalar) && encoded(scalar) == bytes;
}

std::string naivelyRepaired(std::string_view bytes,
                            const std::set<std::string, std::less<>>& beginnings) {
  std::string text;
  while (!bytes.empty()) {
    std::size_t sequence = 0;
    std::size_t illFormed = 1;
    for (std::size_t length = 1; length <= 4 && length <= bytes.size(); ++length) {
      if (isSequence(bytes.substr(0, length))) sequence = length;
      if (beginnings.contains(bytes.substr(0, length))) illFormed = length;
    }
    text += sequence > 0 ? bytes.substr(0, sequence) : "\uFFFD";
    bytes.remove_prefix(sequence > 0 ? sequence : illFormed);
  }
  return text;
}

TEST(UnicodeTests, RepairsLikeTheNaiveOracle) {
  const auto beginnings = beginningsOfSequences();
  // Both sides of every boundary of the table of well-formed sequences.
  const std::string alphabet = "A\x80\x8F\x90\x9F\xA0\xBF\xC1\xC2\xE0\xE1\xED\xF0\xF1\xF4\xF5";
  std::vector<std::string> texts{""};
  for (std::size_t next = 0; next < texts.size(); ++next) {
    const std::string text = texts[next];
    const auto expected = naivelyRepaired(text, beginnings);
    ASSERT_EQ(Unicode::repairUTF8(text), expected) << testing::PrintToString(text);
    ASSERT_EQ(Unicode::isValidUTF8(text), text == expected) << testing::PrintToString(text);
    if (text.size() == 4) continue;
    for (const char byte : alphabet) texts.push_back(text + byte);
  }
}

TEST(UnicodeTests, RepairsAroundLongRunsOfASCII) {
  EXPECT_EQ(Unicode::repairUTF8("0123456789\xFF"s + "0123456789\0\xC3"s),
            "0123456789\uFFFD0123456789\0\uFFFD"s);
  EXPECT_FALSE(Unicode::isValidUTF8("0123456789abcde\x80"));
  EXPECT_TRUE(Unicode::isValidUTF8("0123456789abcde\u00E90123456789\U0001F600"));
}

struct Count {
  const char* name;
  std::string text;
  std::size_t scalars;
  std::size_t characters;
};

const std::vector<Count> counts{
    {"empty", "", 0, 0},
    {"ASCII", "hello", 5, 5},
    {"NUL is a character", "a\0b"s, 3, 3},
    {"CR LF is one", "\r\n", 2, 1},
    {"LF CR are two", "\n\r", 2, 2},
    {"CR CR LF", "\r\r\n", 3, 2},
    {"CR LF across a word", "0123456\r\n0123456789", 19, 18},
    {"CR LF before an accent", "abcdefgh\r\n\u0301", 11, 10},
    {"accent on the last ASCII letter", "0123456789\u0301x", 12, 11},
    {"decomposed letter", "e\u0301", 2, 1},
    {"flags pair from the left", "\U0001F1E9\U0001F1EA\U0001F1EB\U0001F1F7\U0001F1EC", 5, 3},
    {"family", "\U0001F468\u200D\U0001F469\u200D\U0001F467", 5, 1},
    {"joiner after a letter joins nothing", "a\u200D\U0001F467", 3, 2},
    {"skin tone", "\U0001F44D\U0001F3FD", 2, 1},
    {"Hangul syllable of three", "\u1100\u1161\u11A8", 3, 1},
    {"prepended mark",
     "\u0600"
     "1",
     2, 1},
    {"Devanagari vowel sign", "\u0915\u093F", 2, 1},
    {"an ill-formed part is one", "a\xF0\x9F\x98\xFF", 3, 3},
};

TEST(UnicodeTests, CountsScalarsAndCharacters) {
  for (const auto& row : counts) {
    EXPECT_EQ(Unicode::scalarCount(row.text), row.scalars) << row.name;
    EXPECT_EQ(Unicode::characterCount(row.text), row.characters) << row.name;
  }
}

TEST(UnicodeTests, LastCharactersAreWholeOnes) {
  for (const auto& row : counts) {
    EXPECT_EQ(Unicode::lastCharacters(row.text, 0), "") << row.name;
    EXPECT_EQ(Unicode::lastCharacters(row.text, row.characters), row.text) << row.name;
    EXPECT_EQ(Unicode::lastCharacters(row.text, SIZE_MAX), row.text) << row.name;
  }
  EXPECT_EQ(Unicode::lastCharacters("ab\r\ncd", 3), "\r\ncd");
  EXPECT_EQ(Unicode::lastCharacters("xe\u0301"
                                    "e\u0301",
                                    2),
            "e\u0301"
            "e\u0301");
  EXPECT_EQ(Unicode::lastCharacters("\U0001F1E9\U0001F1EA\U0001F1EB", 1), "\U0001F1EB");
}

TEST(UnicodeTests, LastCharactersOfALongTextAreCountedFromItsEnd) {
  const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467";
  std::string text;
  for (int i = 0; i < 40; ++i) text += family + "\r\n";
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
  const std::set<char32_t> whiteSpace{0x09,   0x0A,   0x0B,   0x0C,   0x0D,   0x20,   0x85,
                                      0xA0,   0x1680, 0x2000, 0x2001, 0x2002, 0x2003, 0x2004,
                                      0x2005, 0x2006, 0x2007, 0x2008, 0x2009, 0x200A, 0x2028,
                                      0x2029, 0x202F, 0x205F, 0x3000};
  forEveryScalar([&](char32_t scalar) {
    const auto around = encoded(scalar);
    const auto text = around + "x " + around + "y" + around;
    const auto expected = whiteSpace.contains(scalar) ? "x " + around + "y" : text;
    ASSERT_EQ(Unicode::trimmed(text), expected) << static_cast<std::uint32_t>(scalar);
  });
  EXPECT_EQ(Unicode::trimmed(" \n\u2003\t"), "");
  EXPECT_EQ(Unicode::trimmed("\u0300\xA0 "), "\u0300\xA0");  // the end of a letter is no space
}

TEST(UnicodeTests, LowercasesFullyAndWithoutContext) {
  EXPECT_EQ(Unicode::lowercased("README.MD\0Z"s), "readme.md\0z"s);
  EXPECT_EQ(Unicode::lowercased("\u0130"), "i\u0307");
  EXPECT_EQ(Unicode::lowercased("\u039F\u03A3"), "\u03BF\u03C3");  // no final sigma
  EXPECT_EQ(Unicode::lowercased("\u00C4\u1E9E\u01C5\U00010400"), "\u00E4\u00DF\u01C6\U00010428");
  EXPECT_EQ(Unicode::lowercased("\u00DF\u0149"), "\u00DF\u0149");
}

}  // namespace
}  // namespace tessaloom
