#include <cstdint>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "HelperProtocol/BoundedText.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/GenerationEnums.h"
#include "support/Repeated.h"
#include "support/Thrown.h"

using namespace std::string_literals;

namespace tessaloom {
namespace {

TEST(BoundedTextTests, ChecksTheLengthAndThenTheControls) {
  const auto tooLong = GenerationDTOError::textTooLong;
  const struct {
    const char* name;
    std::string text;
    std::int64_t limit;
    std::optional<GenerationDTOError> expected;
  } rows[] = {
      {"exactly the limit", "abc", 3, {}},
      {"one more", "abcd", 3, tooLong(3, 4)},
      {"no room at all", "", -1, tooLong(-1, 0)},
      {"the absolute maximum", std::string(64'001, 'x'), 100'000, tooLong(64'000, 64'001)},
      {"CR LF is one character", repeated("\r\n", 64'000), 64'000, {}},
      {"flags are one character", repeated("\U0001F1E9\U0001F1EA", 9), 8, tooLong(8, 9)},
      {"length wins over controls", std::string(9, '\0'), 8, tooLong(8, 9)},
      {"allowed scalars", "\t\n\r ~\u00A0\u200B\uFFFF\u00C2\u0180", 10, {}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(thrownBy<GenerationDTOError>([&] { BoundedText(row.text, row.limit); }), row.expected)
        << row.name;
  }
  // Eight bytes are looked at together, so each place among them counts.
  for (const auto& control : {"\0"s, "\v"s, "\x1F"s, "\x7F"s, "\u0080"s, "\u009F"s}) {
    for (std::size_t before = 0; before < 17; ++before) {
      const std::string text = std::string(before, 'a') + control + std::string(16 - before, 'b');
      EXPECT_EQ(thrownBy<GenerationDTOError>([&] { BoundedText(text, 20); }),
                GenerationDTOError::controlCharacters())
          << before;
    }
  }
}

TEST(GenerationEnumsTests, UnknownNamesAreQuotedOnOneLine) {
  const auto offending = "x\n\xFF" + std::string(99, 'y');
  const auto failure = thrownBy<GenerationDTOError>([&] { generationShape(offending); });
  ASSERT_EQ(failure, GenerationDTOError::unknownShape(offending));
  EXPECT_EQ(failure->what(), "Unknown shape \"x\uFFFD" + std::string(62, 'y') + "\".");
  EXPECT_NE(failure, GenerationDTOError::unknownShape("x"));
  EXPECT_THROW(generationEngineID("Codex"), GenerationDTOError);
}

}  // namespace
}  // namespace tessaloom
