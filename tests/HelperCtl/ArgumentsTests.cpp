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
  const std::pair<Words, const char*> rows[] = {
      {{"--json", "a", "--timeout", "7", "b"}, "--timeout[7] --json[] | [a] [b]"},
      {{"--timeout=7=8", ""}, "--timeout[7=8] | []"},
      {{"--timeout="}, "--timeout[] |"},
      {{"--timeout", "--json"}, "--timeout[--json] |"},
      {{"--timeout", "7", "--timeout", "8"}, "--timeout[8] |"},
      {{"-", "--", "--json", "--", "-x"}, "| [-] [--json] [--] [-x]"},
      {{"-j", "-t", "7"}, "--timeout[7] --json[] |"},
      {{"-t7"}, "--timeout[7] |"},
      {{"-9", "-KILL"}, "--signal[KILL] |"},
      {{"a", "--jsno"}, "unknown option \"--jsno\"; did you mean \"--json\"?"},
      {{"--x=3"}, "unknown option \"--x\""},
      {{"--timeout"}, "missing value: --timeout SECONDS"},
      {{"--json=1"}, "--json takes no value"},
  };
  for (const auto& [words, expected] : rows) {
    EXPECT_EQ(sorted(words), expected) << testing::PrintToString(words);
  }
}

}  // namespace
}  // namespace tessaloom
