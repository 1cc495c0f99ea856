#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TLFoundation/DisplayString.h"
#include "TLFoundation/Scalars.h"

using namespace std::string_literals;

namespace tessaloom {
namespace {

struct Cleaning {
  const char* name;
  std::string text;
  std::int64_t limit;
  std::string singleLine;
  std::string multiLine;
};

TEST(DisplayStringTests, CleansAndCuts) {
  const std::string letters(300, 'x');
  const std::vector<Cleaning> rows{
      {"empty", "", 10, "", ""},
      {"tab and line feed", "a\tb\nc", 10, "abc", "a\tb\nc"},
      {"CR LF becomes LF", "a\r\nb", 10, "ab", "a\nb"},
      {"NUL and escape sequence", "a\0b\x1B[31m\x7F"s, 10, "ab[31m", "ab[31m"},
      {"cut without a mark", letters, 256, letters.substr(0, 256), letters.substr(0, 256)},
      {"exactly the limit", "abc", 3, "abc", "abc"},
      {"dropped scalars do not count", "\u200B\u200Ba\tb", 2, "ab", "a\t"},
      {"cut between letter and accent", "xe\u0301", 2, "xe", "xe"},
      {"cut between the halves of a flag", "\U0001F1E9\U0001F1EA", 1, "\U0001F1E9", "\U0001F1E9"},
      {"no room", "abc", 0, "", ""},
      {"ill-formed parts count one each", "a\xE2\x80\xFF\xC3z", 4, "a\uFFFD\uFFFD\uFFFD",
       "a\uFFFD\uFFFD\uFFFD"},
      {"a C1 control as a lone byte is ill-formed", "\x85", 9, "\uFFFD", "\uFFFD"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(DisplayString::singleLine(row.text, row.limit), row.singleLine) << row.name;
    EXPECT_EQ(DisplayString::multiLine(row.text, row.limit), row.multiLine) << row.name;
  }
}

TEST(DisplayStringTests, DropsExactlyTheControlsAndThe17Invisible) {
  const std::set<char32_t> invisible{0x200B, 0x200C, 0x200D, 0x200E, 0x200F, 0x202A,
                                     0x202B, 0x202C, 0x202D, 0x202E, 0x2066, 0x2067,
                                     0x2068, 0x2069, 0x2028, 0x2029, 0xFEFF};
  ASSERT_EQ(invisible.size(), 17U);
  forEveryScalar([&](char32_t scalar) {
    const bool isControl = scalar < 0x20 || (scalar >= 0x7F && scalar <= 0x9F);
    const bool isLineControl = scalar == '\t' || scalar == '\n';
    const bool dropped = isControl || invisible.contains(scalar);
    const auto text = encoded(scalar);
    const auto code = static_cast<std::uint32_t>(scalar);
    ASSERT_EQ(DisplayString::singleLine(text, 2), dropped ? "" : text) << code;
    ASSERT_EQ(DisplayString::multiLine(text, 2), dropped && !isLineControl ? "" : text) << code;
  });
}

TEST(DisplayStringDeathTests, ANegativeLimitEndsTheProcess) {
  EXPECT_DEATH(DisplayString::singleLine("", -1), "limit is negative");
}

}  // namespace
}  // namespace tessaloom
