#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HelperProtocol/StrictJSON.h"

using namespace std::string_literals;
using nlohmann::json;

namespace tessaloom {
namespace {

std::string repeated(const std::string& text, std::size_t count) {
  std::string result;
  for (std::size_t i = 0; i < count; ++i) result += text;
  return result;
}

std::string nested(const std::string& open, const std::string& close, std::size_t depth) {
  return repeated(open, depth) + repeated(close, depth);
}

TEST(StrictJSONTests, KeepsIntegralNumbersExactly) {
  struct Row {
    const char* text;
    json expected;
  };
  const auto unsignedMaximum = std::numeric_limits<std::uint64_t>::max();
  const auto signedMinimum = std::numeric_limits<std::int64_t>::min();
  const std::vector<Row> rows{
      {"5", 5U},
      {"5.0", 5U},
      {"-5.000", -5},
      {"0.5e1", 5U},
      {"12300e-2", 123U},
      {"1E+3", 1000U},
      {"-0", 0},
      {"-0.0e9", 0U},
      {"0e99999999999999999999", 0U},
      {"9007199254740993.0", 9007199254740993U},  // not a double
      {"18446744073709551615", unsignedMaximum},
      {"1844674407370955161.5e1", unsignedMaximum},
      {"-9223372036854775808.0", signedMinimum},
      {"9223372036854775808", 9223372036854775808U},
      // No 64-bit integers: these stay doubles.
      {"18446744073709551616", 18446744073709551616.0},
      {"-9223372036854775809.0", -9223372036854775808.0},
      {"1e300", 1e300},
      {"5.7", 5.7},
      {"4.9999999999999999999", 5.0},
      {"0.1e-99999999999999999999", 0.0},
  };
  for (const auto& row : rows) {
    const auto value = StrictJSON::parse(row.text);
    ASSERT_TRUE(value) << row.text;
    EXPECT_EQ(*value, row.expected) << row.text;
    EXPECT_EQ(value->is_number_float(), row.expected.is_number_float()) << row.text;
  }
}

TEST(StrictJSONTests, RefusesWhatIsNotExactlyOneValue) {
  const std::vector<std::string> texts{
      "",
      " ",
      "{",
      "{}x",
      "{} {}",
      "{}\0"s,
      "{}\0garbage"s,
      "\0{}"s,
      "\"\0\""s,
      "\xEF\xBB\xBF{}",
      "\xFF\xFE{\0}\0"s,
      "{a:1}",
      "{'a':1}",
      "[1,]",
      "{\"a\":1,}",
      "// no comment\n1",
      "NaN",
      "Infinity",
      "1e400",
      "-1e400",
      "+1",
      "01",
      ".5",
      "5.",
      "0x10",
      "TRUE",
      "\"\n\"",
      "\"\\x41\"",
      "\"\\ud800\"",
      "\"\\udc00\"",
      "\"\\ud800\\u0041\"",
      "\"\xED\xA0\x80\"",
      "\"\xC0\x80\"",
      "\"\xF4\x90\x80\x80\"",
      "\"\xE2\x80\"",
      "\"\x80\"",
      "\u00A0{}",
  };
  for (const auto& text : texts) {
    EXPECT_FALSE(StrictJSON::parse(text)) << testing::PrintToString(text);
  }
}

TEST(StrictJSONTests, TheLastOfDuplicateKeysCounts) {
  const auto value = StrictJSON::parse(R"({"a":{"b":[1,2]},"c":3,"a":{"d":[{}]}})");
  ASSERT_TRUE(value);
  EXPECT_EQ(StrictJSON::serialise(*value), R"({"a":{"d":[{}]},"c":3})");
}

TEST(StrictJSONTests, BoundsTheDepthAtAnySize) {
  const std::size_t limit = StrictJSON::maximumDepth;
  for (const std::size_t depth : {limit + 1, std::size_t{200'000}}) {
    EXPECT_FALSE(StrictJSON::parse(nested("[", "]", depth)));
    EXPECT_FALSE(StrictJSON::parse(repeated("[", depth)));
    EXPECT_FALSE(StrictJSON::parse(nested("{\"a\":[", "]}", depth)));
    EXPECT_FALSE(StrictJSON::parse(repeated("{\"a\":", depth)));
  }
  EXPECT_TRUE(StrictJSON::parse(repeated("{\"a\":", limit) + "1" + repeated("}", limit)));
  const auto deepest = StrictJSON::parse(nested("[", "]", limit));
  ASSERT_TRUE(deepest);
  EXPECT_EQ(StrictJSON::serialise(*deepest), nested("[", "]", limit));
  EXPECT_FALSE(StrictJSON::parse("{\"a\":" + nested("[", "]", limit) + "}"));
}

TEST(StrictJSONTests, ReadsLargeTexts) {
  const std::string letters(4 << 20, 'x');
  EXPECT_EQ(StrictJSON::parse("\"" + letters + "\"").value(), letters);
  EXPECT_FALSE(StrictJSON::parse("\"" + letters));
  EXPECT_EQ(StrictJSON::parse("1" + std::string(1 << 20, '0') + "e-1048576").value(), 1U);
  EXPECT_EQ(StrictJSON::parse("[0" + repeated(",[0]", 100'000) + "]").value().size(), 100'001U);
}

TEST(StrictJSONTests, SerialisesObjectsAndArraysOnly) {
  EXPECT_EQ(StrictJSON::serialise(json::object()), "{}");
  EXPECT_EQ(StrictJSON::serialise(json::array({"\u00E9", 1.5, nullptr})), "[\"\u00E9\",1.5,null]");
  for (const json& scalar : {json("text"), json(1), json(1.5), json(true), json(nullptr)}) {
    EXPECT_FALSE(StrictJSON::serialise(scalar)) << scalar;
  }
  EXPECT_FALSE(StrictJSON::serialise(json::array({"\xFF"})));
}

}  // namespace
}  // namespace tessaloom
