#include <cstdint>
#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "GenerationAdvice.h"
#include "HumanFormat.h"
#include "SessionLine.h"
#include "Table.h"

namespace tessaloom {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

Table sampleTable() {
  using enum Table::Alignment;
  Table table({{"PID", right}, {"COMMAND", left, true}, {"MEMORY", right}, {"TTY", left}});
  table.addRow({"7", "a-rather-long-name", "1.5 MiB", "pts/0"});
  table.addRow({"1234", "日本語のプロセス", "24 KiB", "-"});
  table.addRow({"12", "cafe\u0301", "3 B", ""});
  return table;
}

TEST(Table, AlignsByWhatATerminalShows) {
  EXPECT_THAT(sampleTable().lines(80),  //
              ElementsAre(" PID  COMMAND              MEMORY  TTY",
                          "   7  a-rather-long-name  1.5 MiB  pts/0",
                          "1234  日本語のプロセス     24 KiB  -",
                          "  12  cafe\u0301                    3 B"));
}

TEST(Table, CutsWhatMayShrinkAndThenDropsTheLastColumns) {
  // 33 columns have room for all four when COMMAND is cut to 11; a wide character is never halved.
  EXPECT_THAT(sampleTable().lines(33),  //
              ElementsAre(" PID  COMMAND       MEMORY  TTY", "   7  a-rather-l…  1.5 MiB  pts/0",
                          "1234  日本語のプ…   24 KiB  -", "  12  cafe\u0301             3 B"));
  // Even with COMMAND at its narrowest, 24 columns lack room for the terminal.
  EXPECT_THAT(sampleTable().lines(24),  //
              ElementsAre(" PID  COMMAND     MEMORY", "   7  a-rather…  1.5 MiB",
                          "1234  日本語の…   24 KiB", "  12  cafe\u0301           3 B"));
  EXPECT_THAT(sampleTable().lines(1), ElementsAre(" PID", "   7", "1234", "  12"));
}

TEST(HumanFormat, SizesAgesAndDurations) {
  struct Row {
    std::string actual;
    const char* expected;
  };
  const std::vector<Row> rows{
      {humanBytes(0), "0 B"},
      {humanBytes(999), "999 B"},
      {humanBytes(1'000), "0.9 KiB"},
      {humanBytes(1'536), "1.5 KiB"},
      {humanBytes(10 * 1'024), "10 KiB"},
      {humanBytes(1'023'999), "999 KiB"},
      {humanBytes(1'024'000), "0.9 MiB"},
      {humanBytes(std::int64_t{3} << 30), "3.0 GiB"},
      {humanBytes(std::numeric_limits<std::int64_t>::max()), "7.9 EiB"},
      {humanBytes(-5), "-5 B"},
      {humanAge(0), "0s"},
      {humanAge(59), "59s"},
      {humanAge(60), "1m 0s"},
      {humanAge(3'599), "59m 59s"},
      {humanAge(3'600), "1h 0m"},
      {humanAge(90'061), "1d 1h"},
      {humanAge(std::int64_t{86'400} * 4'000), "4000d 0h"},
      {humanMilliseconds(999), "999 ms"},
      {humanMilliseconds(1'960), "1.9 s"},
  };
  for (const Row& row : rows) EXPECT_EQ(row.actual, row.expected);
}

TEST(SessionLine, PartsMethodAndBody) {
  struct Row {
    const char* line;
    SessionLine expected;
  };
  const std::vector<Row> rows{
      {"ListProcesses", {"ListProcesses", std::nullopt}},
      {"ListProcesses ", {"ListProcesses", std::nullopt}},
      {"ListProcesses\r", {"ListProcesses", std::nullopt}},
      {"ListProcesses {}", {"ListProcesses", "{}"}},
      {"KillProcess", {"KillProcess", ""}},
      {"KillProcess  {\"pid\": 1}", {"KillProcess", " {\"pid\": 1}"}},
      {"NoSuchMethod", {"NoSuchMethod", std::nullopt}},
      {"NoSuchMethod x y", {"NoSuchMethod", "x y"}},
      {"", {"", std::nullopt}},
  };
  for (const Row& row : rows) EXPECT_EQ(parseSessionLine(row.line), row.expected) << row.line;
}

TEST(SessionLine, AnswersAreOneLineEach) {
  EXPECT_EQ(formatSessionReply(7, Bytes("{\"a\":\n1}")), "7 ok {\"a\": 1}\n");
  const CallError error{CallError::Category::answered, "com.example.Bad", "two\nlines\x1b[2J"};
  EXPECT_EQ(formatSessionReply(12, std::unexpected(error)),
            "12 error com.example.Bad twolines[2J\n");
}

TEST(GenerationAdvice, SaysWhatAPersonCanDo) {
  struct Row {
    GenerationEngineID engine;
    const char* kind;
    const char* message;
    const char* expectedMessage;
    const char* expectedAdvice;
  };
  const auto claude = GenerationEngineID::claudeCode;
  const auto codex = GenerationEngineID::codex;
  const std::vector<Row> rows{
      {claude, "notAuthenticated", "Not logged in", "Not logged in", "`claude`"},
      {codex, "notAuthenticated", "401", "401", "`codex login`"},
      // A signed-out engine ends with a status and an empty standard error.
      {claude, "nonZeroExit", "", "claude ended with an error and did not say why.", "`claude`"},
      {codex, "nonZeroExit", "nonZeroExit", "codex ended with an error and did not say why.",
       "`codex login`"},
      {codex, "nonZeroExit", "disk full", "disk full", "run `codex`"},
      {claude, "cancelled", "cancelled", "The generation was cancelled.", ""},
      {claude, "binaryNotFound", "claude wasn’t found", "claude wasn’t found", "doctor"},
      {claude, "unheardOf", "", "", ""},
  };
  for (const Row& row : rows) {
    CallError error{CallError::Category::answered, "name", row.message};
    error.kind = row.kind;
    const CallError explained = explainGenerationError(error, row.engine);
    EXPECT_EQ(explained.message, row.expectedMessage) << row.kind;
    EXPECT_THAT(explained.advice, HasSubstr(row.expectedAdvice)) << row.kind;
  }
}

}  // namespace
}  // namespace tessaloom
