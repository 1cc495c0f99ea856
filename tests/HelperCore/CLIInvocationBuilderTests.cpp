#include <string>

#include <gtest/gtest.h>

#include "HelperCore/CLIInvocationBuilder.h"

namespace tessaloom {
namespace {

// The practice engine compares every vector, text and schema with copies of its own; these cases
// hold what it does not see.

TEST(CLIInvocationBuilder, ComposesTheInput) {
  const std::string rules =
      "OUTPUT RULES\n" + CLIInvocationBuilder::claudeArguments(GenerationShape::freeText).at(11);
  const auto promptOf = [](const std::string& instructions) {
    return CLIInvocationBuilder::prompt(instructions, " p\n");
  };
  EXPECT_EQ(promptOf(" \r\n\t\u00a0\u2028"), rules + "\n\nTASK\n p\n");
  EXPECT_EQ(promptOf("\n\n a\n\n \u200b \u3000\n"),
            rules + "\n\nSYSTEM INSTRUCTIONS\na\n\n \u200b\n\nTASK\n p\n");
}

TEST(CLIInvocationBuilder, SetsDirectoriesWithoutTrailingSlashes) {
  const auto environment = CLIInvocationBuilder::environment("/home/u//", "me", "/tmp/x/");
  EXPECT_EQ(environment.at("HOME"), "/home/u");
  EXPECT_EQ(environment.at("TMPDIR"), "/tmp/x");
  EXPECT_EQ(CLIInvocationBuilder::searchLocations("//").front(), "/.local/bin");
}

}  // namespace
}  // namespace tessaloom
