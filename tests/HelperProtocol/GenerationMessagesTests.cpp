#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HelperProtocol/BoundedText.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationResult.h"

using namespace std::string_literals;

namespace tessaloom {
namespace {

using Failure = std::optional<GenerationDTOError>;

template <class Make>
Failure failureOf(Make make) {
  try {
    make();
    return std::nullopt;
  } catch (const GenerationDTOError& error) {
    return error;
  }
}

std::string repeated(const std::string& text, std::size_t count) {
  std::string result;
  for (std::size_t i = 0; i < count; ++i) result += text;
  return result;
}

const auto controlCharacters = GenerationDTOError::controlCharacters();

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
      {"one more", "abcd", 3, GenerationDTOError::textTooLong(3, 4)},
      {"no room at all", "", -1, GenerationDTOError::textTooLong(-1, 0)},
      {"the absolute maximum holds", std::string(64'001, 'x'), 100'000,
       GenerationDTOError::textTooLong(64'000, 64'001)},
      {"CR LF is one character", repeated("\r\n", 64'000), 64'000, {}},
      {"decomposed letters", repeated("e\u0301", 8), 8, {}},
      {"flags", repeated("\U0001F1E9\U0001F1EA", 9), 8, GenerationDTOError::textTooLong(8, 9)},
      {"length wins over controls", std::string(9, '\0'), 8, GenerationDTOError::textTooLong(8, 9)},
      {"tab, line feed, carriage return", "\t\n\r", 8, {}},
      {"other allowed scalars", "\u00A0\u200B\uFFFF\u202E\u00C2\u0180", 8, {}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(failureOf([&] { BoundedText(row.text, row.limit); }), row.expected) << row.name;
  }
  for (const std::string& control :
       {"\0"s, "\v"s, "\f"s, "\x1B"s, "\x1F"s, "\x7F"s, "\u0080"s, "\u0085"s, "\u009F"s}) {
    EXPECT_EQ(failureOf([&] { BoundedText("a" + control + "b", 8); }), controlCharacters);
  }
}

TEST(GenerationRequestTests, ChecksInstructionsBeforePrompt) {
  const std::string control = "\x1B";
  struct Row {
    const char* name;
    std::string instructions;
    std::string prompt;
    Failure expected;
  };
  const std::vector<Row> rows{
      {"at both limits", std::string(8'000, 'x'), std::string(64'000, 'x'), {}},
      {"long instructions", std::string(8'001, 'x'), control,
       GenerationDTOError::textTooLong(8'000, 8'001)},
      {"long instructions with a NUL", std::string(8'999, 'x') + '\0', "",
       GenerationDTOError::textTooLong(8'000, 9'000)},
      {"bad instructions, long prompt", control, std::string(64'001, 'x'), controlCharacters},
      {"long prompt with a control", "", std::string(64'000, 'x') + control,
       GenerationDTOError::textTooLong(64'000, 64'001)},
      {"bad prompt", "", control, controlCharacters},
  };
  for (const auto& row : rows) {
    const auto failure = failureOf([&] {
      GenerationRequest(UUID::random(), GenerationEngineID::codex, GenerationShape::freeText,
                        row.instructions, row.prompt, GenerationTimeout());
    });
    EXPECT_EQ(failure, row.expected) << row.name;
  }
}

TEST(GenerationTimeoutTests, AcceptsFiveToThreeHundred) {
  EXPECT_EQ(GenerationTimeout().seconds(), 180);
  for (const std::int64_t seconds : {5, 300}) {
    EXPECT_EQ(GenerationTimeout(seconds).duration(), std::chrono::seconds(seconds));
  }
  for (const std::int64_t seconds : {std::int64_t{4}, std::int64_t{301}, std::int64_t{0},
                                     std::int64_t{-1}, INT64_MIN, INT64_MAX}) {
    EXPECT_EQ(failureOf([&] { GenerationTimeout{seconds}; }),
              GenerationDTOError::timeoutOutOfRange(seconds));
  }
}

TEST(GeneratedFieldsTests, CountsTagsBeforeGlobs) {
  const auto make = [](std::size_t tags, std::size_t globs) {
    return failureOf([&] {
      GeneratedFields("", std::vector<std::string>(tags), std::vector<std::string>(globs), false);
    });
  };
  EXPECT_EQ(make(12, 24), std::nullopt);
  EXPECT_EQ(make(13, 25), GenerationDTOError::tooManyItems(12, 13));
  EXPECT_EQ(make(12, 25), GenerationDTOError::tooManyItems(24, 25));
}

TEST(GeneratedFieldsTests, CleansAndCutsItsTexts) {
  const GeneratedFields fields("a\n" + std::string(2'001, 'x'), {"T\u202E", std::string(65, 't')},
                               {"", std::string(257, 'g'), "[not checked"}, true);
  EXPECT_EQ(fields.itemDescription(), "a" + std::string(1'999, 'x'));
  EXPECT_EQ(fields.tags(), (std::vector<std::string>{"T", std::string(64, 't')}));
  EXPECT_EQ(fields.globs(), (std::vector<std::string>{"", std::string(256, 'g'), "[not checked"}));
}

TEST(GenerationDTOErrorTests, EqualOnlyWithEqualValuesAndShownOnOneLine) {
  EXPECT_NE(GenerationDTOError::textTooLong(8, 9), GenerationDTOError::textTooLong(8, 10));
  EXPECT_NE(GenerationDTOError::textTooLong(8, 9), GenerationDTOError::tooManyItems(8, 9));
  EXPECT_NE(GenerationDTOError::unknownEngine("a"), GenerationDTOError::unknownEngine("b"));

  EXPECT_EQ(failureOf([] { generationEngineID("Codex"); }),
            GenerationDTOError::unknownEngine("Codex"));
  const auto failure = failureOf([] { generationShape("x\n\xFF" + std::string(99, 'y')); });
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->offending(), "x\n\xFF" + std::string(99, 'y'));
  EXPECT_EQ(failure->what(), "\"x\uFFFD" + std::string(62, 'y') + "\" names no shape.");
  EXPECT_EQ(generationShape("itemFields"), GenerationShape::itemFields);
}

}  // namespace
}  // namespace tessaloom
