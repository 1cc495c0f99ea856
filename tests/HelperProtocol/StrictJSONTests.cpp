#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "HelperProtocol/StrictJSON.h"
#include "support/Repeated.h"

using namespace std::string_literals;
using nlohmann::json;

namespace tessaloom {
namespace {

TEST(StrictJSONTests, KeepsIntegralNumbersExactly) {
  const std::pair<const char*, json> rows[] = {
      {"5", 5U},
      {"-5.000", -5},
      {"0.5e1", 5U},
      {"12300e-2", 123U},
      {"1E+3", 1000U},
      {"-0.0e9", 0U},
      {"0e99999999999999999999", 0U},
      {"9007199254740993.0", 9007199254740993U},  // not a double
      {"18446744073709551615", UINT64_MAX},
      {"1844674407370955161.5e1", UINT64_MAX},
      {"-9223372036854775808.0", INT64_MIN},
      // No 64-bit integers: these stay doubles.
      {"18446744073709551616", 18446744073709551616.0},
      {"-9223372036854775809.0", -9223372036854775808.0},
      {"1e300", 1e300},
      {"5.7", 5.7},
      {"4.9999999999999999999", 5.0},
      {"1e-99999999999999999999", 0.0},
  };
  for (const auto& [text, expected] : rows) {
    const auto value = StrictJSON::parse(text);
    EXPECT_EQ(value, expected) << text;
    EXPECT_EQ(value.value().is_number_float(), expected.is_number_float()) << text;
  }
}

TEST(StrictJSONTests, RefusesWhatIsNotExactlyOneValue) {
  const std::vector<std::string> texts{
      // No value, half a value, more than a value.
      "", " ", "{", "{}x", "{} {}", "{}\0"s, "{}\0garbage"s, "\0{}"s, "\"\0\""s,
      // What other readers allow.
      "\xEF\xBB\xBF{}", "\xFF\xFE{\0}\0"s, "\u00A0{}", "{a:1}", "{'a':1}", "[1,]", "{\"a\":1,}",
      "// no comment\n1", "NaN", "Infinity", "TRUE", "1e400", "-1e400", "+1", "01", ".5", "5.",
      "0x10", "\"\n\"", "\"\\x41\"",
      // Half surrogates and ill-formed text.
      "\"\\ud800\"", "\"\\udc00\"", "\"\\ud800\\u0041\"", "\"\xED\xA0\x80\"", "\"\xC0\x80\"",
      "\"\xF4\x90\x80\x80\"", "\"\xE2\x80\"", "\"\x80\""};
  for (const auto& text : texts) {
    EXPECT_FALSE(StrictJSON::parse(text)) << testing::PrintToString(text);
  }
}

TEST(StrictJSONTests, TheLastOfDuplicateKeysCounts) {
  const auto value = StrictJSON::parse(R"({"a":{"b":[1,2]},"c":3,"a":{"d":[{}]}})");
  EXPECT_EQ(StrictJSON::serialise(value.value()), R"({"a":{"d":[{}]},"c":3})");
}

TEST(StrictJSONTests, BoundsTheDepthAtAnySize) {
  const std::size_t limit = StrictJSON::maximumDepth;
  const auto nested = [](const std::string& open, const std::string& close, std::size_t depth) {
    return repeated(open, depth) + repeated(close, depth);
  };
  for (const std::size_t depth : {limit + 1, std::size_t{100'000}}) {
    EXPECT_FALSE(StrictJSON::parse(nested("[", "]", depth)));
    EXPECT_FALSE(StrictJSON::parse(nested("{\"a\":[", "]}", depth)));
    EXPECT_FALSE(StrictJSON::parse(repeated("{\"a\":", depth)));
  }
  const auto deepest = StrictJSON::parse(nested("[", "]", limit));
  EXPECT_EQ(StrictJSON::serialise(deepest.value()), nested("[", "]", limit));
  EXPECT_FALSE(StrictJSON::parse("{\"a\":" + nested("[", "]", limit) + "}"));
}

TEST(StrictJSONTests, ReadsLargeTexts) {
  const std::string letters(100'000, 'x');
  EXPECT_EQ(StrictJSON::parse("\"" + letters + "\"").value(), letters);
  EXPECT_FALSE(StrictJSON::parse("\"" + letters));
  EXPECT_EQ(StrictJSON::parse("1" + std::string(100'000, '0') + "e-100000").value(), 1U);
  EXPECT_EQ(StrictJSON::parse("[0" + repeated(",[0]", 10'000) + "]").value().size(), 10'001U);
}

TEST(StrictJSONTests, SerialisesObjectsAndArraysOnly) {
  EXPECT_EQ(StrictJSON::serialise(json::array({"\u00E9", 1.5, nullptr})), "[\"\u00E9\",1.5,null]");
  for (const json& scalar : {json("text"), json(1), json(1.5), json(true), json(nullptr)}) {
    EXPECT_FALSE(StrictJSON::serialise(scalar)) << scalar;
  }
  EXPECT_FALSE(StrictJSON::serialise(json::array({"\xFF"})));
}

}  // namespace
}  // namespace tessaloom
