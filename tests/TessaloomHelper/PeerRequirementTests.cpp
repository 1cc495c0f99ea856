#include <string>

#include <gtest/gtest.h>

#include "linux/PeerRequirement.h"

namespace tessaloom {
namespace {

TEST(PeerRequirement, AdmitsTheEditorAndTheClientOnly) {
  const std::string editor = "com.brindlemoor.Tessaloom";
  const PeerRequirement requirement(1000, "/opt/t/libexec/tessaloom-helper");
  const auto native = [&](const std::string& executable) {
    return PeerFacts{true, executable, editor};
  };
  const auto sandboxed = [](const std::string& application) {
    return PeerFacts{false, "/opt/t/libexec/tessaloom", application};
  };
  const struct {
    const char* name;
    PeerFacts peer;
    bool isAdmitted;
  } rows[] = {
      {"editor", native("/opt/t/libexec/tessaloom"), true},
      {"client", native("/opt/t/libexec/tessaloom-helperctl"), true},
      {"the helper itself", native("/opt/t/libexec/tessaloom-helper"), false},
      {"below the folder", native("/opt/t/libexec/x/tessaloom"), false},
      {"a folder with the same start", native("/opt/t/libexec2/tessaloom"), false},
      {"a longer name", native("/opt/t/libexec/tessaloom2"), false},
      {"nothing", native(""), false},
      {"the Flatpak editor", sandboxed(editor), true},
      {"a sandbox that is not a Flatpak", sandboxed(""), false},
      {"another Flatpak", sandboxed(editor + ".Other"), false},
      {"other case", sandboxed("com.brindlemoor.tessaloom"), false},
  };
  for (const auto& row : rows) EXPECT_EQ(requirement.admits(row.peer), row.isAdmitted) << row.name;
  EXPECT_TRUE(PeerRequirement(0, "/tessaloom-helper").admits(native("/tessaloom")));
  EXPECT_FALSE(PeerRequirement(0, "").admits(native("/tessaloom")));
}

}  // namespace
}  // namespace tessaloom
