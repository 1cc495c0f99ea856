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

TEST(DisplayStringTests, CleansAndCuts) {
  struct Row {
    const char* name;
    std::string text;
    std::int64_t limit;
    std::string singleLine, multiLine;
  };
  const std::vector<Row> rows{
      {"NUL and escape sequence", "a\0b\x1B[31m\x7F"s, 10, "ab[31m", "ab[31m"},
      {"CR LF becomes LF", "a\r\nb", 10, "ab", "a\nb"},
      {"exactly the limit", "abc", 3, "abc", "abc"},
      {"cut without a mark", "abcd", 3, "abc", "abc"},
      {"no room", "abc", 0, "", ""},
      {"dropped scalars do not count", "\u200B\u200Ba\tb", 2, "ab", "a\t"},
      {"cut between letter and accent", "xe\u0301", 2, "xe", "xe"},
      {"ill-formed parts count one each", "\xE2\x80\xFF\xC3z", 3, "\uFFFD\uFFFD\uFFFD",
       "\uFFFD\uFFFD\uFFFD"},
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
  std::string text, line, lines;
  forEveryScalar([&](char32_t scalar) {
    const bool isControl = scalar < 0x20 || (scalar >= 0x7F && scalar <= 0x9F);
    const bool dropped = isControl || invisible.contains(scalar);
    const auto form = encoded(scalar);
    text += form;
    if (!dropped) line += form;
    if (!dropped || scalar == '\t' || scalar == '\n') lines += form;
    if (scalar % 0x100 != 0xFF) return;
    EXPECT_EQ(DisplayString::singleLine(text, 0x100), line);
    EXPECT_EQ(DisplayString::multiLine(text, 0x100), lines);
    text = line = lines = "";
  });
}

TEST(DisplayStringDeathTests, ANegativeLimitEndsTheProcess) {
  EXPECT_DEATH(DisplayString::singleLine("", -1), "limit is negative");
}

}  // namespace
}  // namespace tessaloom
