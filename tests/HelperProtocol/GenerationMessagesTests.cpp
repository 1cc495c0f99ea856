#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HelperProtocol/BoundedText.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationResult.h"
#include "support/Repeated.h"
#include "support/Thrown.h"

using namespace std::string_literals;

namespace tessaloom {
namespace {

using Failure = std::optional<GenerationDTOError>;

template <class Make>
Failure failureOf(Make make) {
  return thrownBy<GenerationDTOError>(make);
}

const auto controlCharacters = GenerationDTOError::controlCharacters();
const auto textTooLong = GenerationDTOError::textTooLong;

TEST(BoundedTextTests, ChecksTheLengthAndThenTheControls) {
  struct Row {
    const char* name;
    std::string text;
    std::int64_t limit;
    Failure expected;
  };
  const std::vector<Row> rows{
      {"empty at zero", "", 0, {}},
      {"exactly the limit", "abc", 3, {}},
      {"one more", "abcd", 3, textTooLong(3, 4)},
      {"no room at all", "", -1, textTooLong(-1, 0)},
      {"the absolute maximum", std::string(64'001, 'x'), 100'000, textTooLong(64'000, 64'001)},
      {"CR LF is one character", repeated("\r\n", 64'000), 64'000, {}},
      {"flags are one character", repeated("\U0001F1E9\U0001F1EA", 9), 8, textTooLong(8, 9)},
      {"length wins over controls", std::string(9, '\0'), 8, textTooLong(8, 9)},
      {"allowed scalars", "\t\n\r\u00A0\u200B\uFFFF\u00C2\u0180", 8, {}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(failureOf([&] { BoundedText(row.text, row.limit); }), row.expected) << row.name;
  }
  for (const auto& control : {"\0"s, "\v"s, "\f"s, "\x1F"s, "\x7F"s, "\u0080"s, "\u009F"s}) {
    EXPECT_EQ(failureOf([&] { BoundedText("a" + control + "b", 8); }), controlCharacters);
  }
}

TEST(GenerationRequestTests, ChecksInstructionsBeforePrompt) {
  const auto failure = [](std::string instructions, std::string prompt) {
    return failureOf([&] {
      GenerationRequest(UUID::random(), GenerationEngineID::codex, GenerationShape::freeText,
                        instructions, prompt, GenerationTimeout());
    });
  };
  const std::string maximumPrompt(64'000, 'x');
  EXPECT_EQ(failure(std::string(8'000, 'x'), maximumPrompt), std::nullopt);
  EXPECT_EQ(failure(std::string(8'001, 'x'), "\x1B"), textTooLong(8'000, 8'001));
  EXPECT_EQ(failure("\x1B", maximumPrompt + "x"), controlCharacters);
  EXPECT_EQ(failure("", maximumPrompt + "\x1B"), textTooLong(64'000, 64'001));
  EXPECT_EQ(failure("", "\x1B"), controlCharacters);
}

TEST(GenerationTimeoutTests, AcceptsFiveToThreeHundred) {
  EXPECT_EQ(GenerationTimeout().seconds(), 180);
  EXPECT_EQ(GenerationTimeout(5).duration(), std::chrono::seconds(5));
  EXPECT_EQ(GenerationTimeout(300).seconds(), 300);
  for (const std::int64_t seconds : {std::int64_t{4}, std::int64_t{301}, INT64_MIN, INT64_MAX}) {
    EXPECT_EQ(failureOf([&] { GenerationTimeout{seconds}; }),
              GenerationDTOError::timeoutOutOfRange(seconds));
  }
}

TEST(GeneratedFieldsTests, CountsTagsBeforeGlobsAndCutsTexts) {
  using Texts = std::vector<std::string>;
  const auto failure = [](std::size_t tags, std::size_t globs) {
    return failureOf([&] { GeneratedFields("", Texts(tags), Texts(globs), false); });
  };
  EXPECT_EQ(failure(12, 24), std::nullopt);
  EXPECT_EQ(failure(13, 25), GenerationDTOError::tooManyItems(12, 13));
  EXPECT_EQ(failure(12, 25), GenerationDTOError::tooManyItems(24, 25));

  const GeneratedFields fields("a\n" + std::string(2'001, 'x'), {"T\u202E", std::string(65, 't')},
                               {"", std::string(257, 'g'), "[not checked"}, true);
  EXPECT_EQ(fields.itemDescription(), "a" + std::string(1'999, 'x'));
  EXPECT_EQ(fields.tags(), (Texts{"T", std::string(64, 't')}));
  EXPECT_EQ(fields.globs(), (Texts{"", std::string(256, 'g'), "[not checked"}));
}

TEST(GenerationDTOErrorTests, EqualOnlyWithEqualValuesAndShownOnOneLine) {
  EXPECT_NE(textTooLong(8, 9), textTooLong(8, 10));
  EXPECT_NE(textTooLong(8, 9), textTooLong(9, 9));
  EXPECT_NE(textTooLong(8, 9), GenerationDTOError::tooManyItems(8, 9));
  EXPECT_EQ(failureOf([] { generationEngineID("Codex"); }),
            GenerationDTOError::unknownEngine("Codex"));
  EXPECT_NE(GenerationDTOError::unknownEngine("a"), GenerationDTOError::unknownEngine("b"));

  const auto offending = "x\n\xFF" + std::string(99, 'y');
  const auto failure = failureOf([&] { generationShape(offending); });
  ASSERT_EQ(failure, GenerationDTOError::unknownShape(offending));
  EXPECT_EQ(failure->what(), "Unknown shape \"x\uFFFD" + std::string(62, 'y') + "\".");
  EXPECT_EQ(generationShape("itemFields"), GenerationShape::itemFields);
}

}  // namespace
}  // namespace tessaloom
