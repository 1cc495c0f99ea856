#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Arguments.h"

namespace tessaloom {
namespace {

constexpr std::array rules{OptionRule{"--timeout", "SECONDS", "", 't'},
                           OptionRule{"--json", "", "", 'j'},
                           OptionRule{"--signal", "SIGNAL", "", 0, WordKind::signal, true}};

using Words = std::vector<std::string>;

/// The options in order of their names, then a bar, then the positionals; or the complaint.
std::string sorted(const Words& words) {
  const auto parsed = Arguments::parse(words, rules);
  if (!parsed) return parsed.error().message;
  std::string text;
  for (const OptionRule& rule : rules) {
    if (const auto value = parsed->value(rule.name)) {
      text += std::string(rule.name) + "[" + *value + "] ";
    }
  }
  text += "|";
  for (const std::string& positional : parsed->positionals()) text += " [" + positional + "]";
  return text;
}

TEST(Arguments, SortsWordsIntoOptionsAndPositionals) {
  struct Row {
    const char* name;
    Words words;
    const char* expected;
  };
  const std::vector<Row> rows{
      {"nothing", {}, "|"},
      {"options before and after",
       {"--json", "a", "--timeout", "7", "b"},
       "--timeout[7] --json[] | [a] [b]"},
      {"value after an equals sign", {"--timeout=7=8"}, "--timeout[7=8] |"},
      {"empty value", {"--timeout="}, "--timeout[] |"},
      {"a value may look like an option", {"--timeout", "--json"}, "--timeout[--json] |"},
      {"the last one counts", {"--timeout", "7", "--timeout", "8"}, "--timeout[8] |"},
      {"a dash is a positional", {"-", "--json"}, "--json[] | [-]"},
      {"two dashes end the options", {"a", "--", "--json", "--", "-x"}, "| [a] [--json] [--] [-x]"},
      {"an empty word is a positional", {""}, "| []"},
      {"short forms", {"-j", "-t", "7"}, "--timeout[7] --json[] |"},
      {"a value after the letter", {"-t7"}, "--timeout[7] |"},
      {"a dashed value", {"-9", "-KILL"}, "--signal[KILL] |"},
      {"unknown", {"a", "--jsno"}, "unknown option \"--jsno\"; did you mean \"--json\"?"},
      {"unknown with a value", {"--x=3"}, "unknown option \"--x\""},
      {"no value left", {"--timeout"}, "missing value: --timeout SECONDS"},
      {"value not wanted", {"--json=1"}, "--json takes no value"},
  };
  for (const Row& row : rows) EXPECT_EQ(sorted(row.words), row.expected) << row.name;
}

}  // namespace
}  // namespace tessaloom
