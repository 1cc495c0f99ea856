#include <pwd.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HelperCore/CLIInvocationBuilder.h"
#include "HelperCore/CurrentUser.h"
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

TEST(CLIInvocationBuilder, SetsPathsWithoutTrailingSlashes) {
  const auto environment = CLIInvocationBuilder::environment("/home/u/", "me", "/tmp/x/");
  EXPECT_EQ(environment.at("HOME"), "/home/u");
  EXPECT_EQ(environment.at("TMPDIR"), "/tmp/x");
  EXPECT_TRUE(environment.at("PATH").starts_with("/home/u/.local/bin:/home/u/.claude/local:"));
  const auto ofRoot = CLIInvocationBuilder::environment("/", "me", "/tmp");
  EXPECT_EQ(ofRoot.at("HOME"), "/");
  EXPECT_TRUE(ofRoot.at("PATH").starts_with("/.local/bin:"));
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
