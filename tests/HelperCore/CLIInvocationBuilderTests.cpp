#include <pwd.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "HelperCore/CLIInvocationBuilder.h"
#include "HelperCore/CurrentUser.h"
#include "HelperCore/GenerationSchema.h"
#include "HelperCore/SystemError.h"
#include "TLFoundation/Unicode.h"

namespace tessaloom {
namespace {

// The practice engine compares every vector, text and schema with copies of its own; these cases
// hold what it does not see.

TEST(CLIInvocationBuilder, ComposesTheInput) {
  const std::string rules = "OUTPUT RULES\n" + std::string(CLIInvocationBuilder::systemText());
  EXPECT_EQ(Unicode::characterCount(rules), 476U);
  struct Case {
    std::string instructions, prompt, rest;
  };
  const std::vector<Case> cases{
      {"", "p", "\n\nTASK\np"},
      {" \r\n\t\u00a0\u2028", "p", "\n\nTASK\np"},
      {"\n\n a\n\n b \u3000\n", " p\n", "\n\nSYSTEM INSTRUCTIONS\na\n\n b\n\nTASK\n p\n"},
      {"\u200ba", "", "\n\nSYSTEM INSTRUCTIONS\n\u200ba\n\nTASK\n"}};
  for (const Case& row : cases)
    EXPECT_EQ(CLIInvocationBuilder::prompt(row.instructions, row.prompt), rules + row.rest);
}

TEST(CLIInvocationBuilder, ListsTheArguments) {
  using enum GenerationEngineID;
  using enum GenerationShape;
  for (const GenerationShape shape : allGenerationShapes) {
    const auto claude = CLIInvocationBuilder::arguments(claudeCode, shape, "/ignored");
    ASSERT_EQ(claude.size(), 14U);
    EXPECT_EQ(claude[7], "");
    EXPECT_EQ(claude[11], CLIInvocationBuilder::systemText());
    EXPECT_EQ(claude[13], GenerationSchema::text(shape));
  }
  const auto with = CLIInvocationBuilder::arguments(codex, freeText, "/t/schema.json");
  ASSERT_EQ(with.size(), 13U);
  EXPECT_EQ(with[11], "/t/schema.json");
  auto without = with;
  without.erase(without.begin() + 10, without.begin() + 12);
  EXPECT_EQ(CLIInvocationBuilder::arguments(codex, itemFields, std::nullopt), without);
  EXPECT_EQ(without.back(), "-");
}

TEST(CLIInvocationBuilder, SetsTheEnvironment) {
  EXPECT_EQ(CLIInvocationBuilder::environment("/home/u/", "me", "/tmp/x/"),
            (Environment{{"HOME", "/home/u"},
                         {"USER", "me"},
                         {"LOGNAME", "me"},
                         {"PATH",
                          "/home/u/.local/bin:/home/u/.claude/local:/opt/homebrew/bin:"
                          "/usr/local/bin:/usr/bin:/bin:/home/u/.bun/bin:/home/u/.npm-global/bin:"
                          "/home/u/.cargo/bin"},
                         {"TMPDIR", "/tmp/x"},
                         {"SHELL", "/bin/zsh"},
                         {"TERM", "dumb"},
                         {"LANG", "en_US.UTF-8"},
                         {"LC_ALL", "en_US.UTF-8"}}));
  EXPECT_EQ(CLIInvocationBuilder::environment("/", "me", "/tmp").at("HOME"), "/");
}

TEST(GenerationSchema, IsCompactAndClosed) {
  struct Case {
    GenerationShape shape;
    std::size_t length;
    std::vector<std::string> keys;
  };
  for (const Case& row : {Case{GenerationShape::freeText, 267, {"content"}},
                          Case{GenerationShape::itemFields,
                               642,
                               {"itemDescription", "tags", "globs", "alwaysApply"}}}) {
    const std::string text(GenerationSchema::text(row.shape));
    EXPECT_EQ(Unicode::characterCount(text), row.length);
    const auto schema = nlohmann::ordered_json::parse(text);
    EXPECT_EQ(schema.dump(), text);
    std::vector<std::string> keys;
    for (const auto& [key, value] : schema.at("properties").items()) keys.push_back(key);
    EXPECT_EQ(keys, row.keys);
    EXPECT_EQ(schema.at("required"), row.keys);
  }
}

TEST(CurrentUser, ComesFromTheUserDatabase) {
  const passwd* entry = ::getpwuid(::getuid());
  const auto user = lookUpCurrentUser();
  ASSERT_EQ(user.has_value(), entry != nullptr);
  if (!user) return;
  EXPECT_EQ(user->loginName, entry->pw_name);
  EXPECT_TRUE(std::filesystem::equivalent(user->homeDirectory, entry->pw_dir));
}

TEST(SystemError, HasTheSystemsText) {
  EXPECT_EQ(systemErrorText(ENOENT), "No such file or directory");
}

}  // namespace
}  // namespace tessaloom
