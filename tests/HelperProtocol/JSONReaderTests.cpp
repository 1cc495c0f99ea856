#include <cstddef>
#include <optional>
#include <string>
#include <utility>

#include <gmock/gmock.h>

#include "HelperProtocol/JSONReader.h"
#include "support/Repeated.h"

using namespace std::string_literals;

namespace tessaloom {
namespace {

std::optional<std::string> compact(const std::string& text) {
  JSONText value;
  if (JSONReader::read(text, value)) return std::nullopt;
  return value.text();
}

TEST(JSONReaderTests, KeepsValuesAsTheyAreAndIntegralNumbersAsIntegers) {
  const std::pair<const char*, const char*> rows[] = {
      {"5.0", "5"},
      {"-12300e-2", "-123"},
      {"-0.0e9", "0"},
      {"9223372036854775807", "9223372036854775807"},
      {"-9223372036854775808", "-9223372036854775808"},
      // Not 64-bit integers.
      {"18446744073709551615", "18446744073709551615"},
      {"-9223372036854775809", "-9223372036854775809"},
      {"9223372036854775807.0", "9223372036854775807.0"},
      {"1e300", "1e300"},
      {"5.70", "5.70"},
      {" [ true , { } , \"\\u00e9\\n/\" , [ ] , null ] ", "[true,{},\"\u00E9\\n/\",[],null]"},
      {R"({"b":1,"a":{"{":[2,{"c":false}]}})", R"({"b":1,"a":{"{":[2,{"c":false}]}})"},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(compact(text), expected);
}

TEST(JSONReaderTests, RefusesWhatIsNotExactlyOneValue) {
  const std::string texts[] = {
      // No value, half a value, more than a value.
      "", "{", "{} {}", "{}\0"s, "{}\0garbage"s, "\0{}"s, "\"\0\""s,
      // What the library or other readers allow.
      "\xEF\xBB\xBF{}", "[1,]", "// no comment\n1", "NaN", "1e400", "-1e400", "01", "\"a\\\"\n\"",
      // Half surrogates and ill-formed text.
      "\"\\ud800\"", "\"\\udc00\"", "\"\xED\xA0\x80\"", "\"\xF4\x90\x80\x80\"", "\"\x80\""};
  for (const auto& text : texts) EXPECT_FALSE(compact(text)) << testing::PrintToString(text);
  JSONSlot value;
  const std::pair<std::string, std::string> rows[] = {
      {"[1e999]", "6: a number is out of range"},
      {"[\0]"s, "2: a NUL"},
      {"{}\0x"s, "3: a NUL"},
      {"tr\0"s, "3: a NUL"},
      {"{} x\0"s, "4: invalid literal"},
      {"\xFF\0"s, "1: "},
      {"[\"\\\\\",\"\n\"]", "8: "},
      {"\xEF\xBB\xBF{}", "1: a byte order mark"},
  };
  for (const auto& [text, problem] : rows) {
    EXPECT_THAT(JSONReader::read(text, value),
                testing::Optional(testing::StartsWith("is not valid JSON at byte " + problem)));
  }
}

TEST(JSONReaderTests, TheLastOfDuplicateKeysCounts) {
  JSONSlot inner, kept;
  JSONText text, list;
  JSONObject nested{}, object{{"inner", &inner}, {"list", &list}, {"nested", &nested}};
  JSONObject root{{"object", &object}, {"kept", &kept}, {"text", &text}};
  EXPECT_EQ(JSONReader::read(R"({"object":{"inner":1,"list":[],"nested":{}},"kept":1,"text":[1],)"
                             R"("object":2,"kept":[],"skipped":{"kept":3},"text":"a"})",
                             root),
            std::nullopt);
  EXPECT_TRUE(inner.isAbsent() && list.isAbsent() && nested.isAbsent());
  EXPECT_TRUE(kept.is(JSONContainer::array));
  EXPECT_EQ(text.text(), "\"a\"");
}

TEST(JSONReaderTests, BoundsTheDepth) {
  const std::size_t limit = JSONReader::maximumDepth;
  const auto nested = [](const std::string& open, const std::string& close, std::size_t depth) {
    return repeated(open, depth) + repeated(close, depth);
  };
  JSONSlot value;
  EXPECT_EQ(JSONReader::read(nested("[", "]", limit + 1), value), "is nested more than 512 deep");
  EXPECT_FALSE(compact(repeated("{\"a\":", 100'000)));
  EXPECT_EQ(compact(nested("[", "]", limit)), nested("[", "]", limit));
  EXPECT_FALSE(compact("{\"a\":" + nested("[", "]", limit) + "}"));
}

}  // namespace
}  // namespace tessaloom
