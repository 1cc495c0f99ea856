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
  for (const PeerFacts& peer : {native("/opt/t/libexec/tessaloom"), sandboxed(editor),
                                native("/opt/t/libexec/tessaloom-helperctl")}) {
    EXPECT_TRUE(requirement.admits(peer)) << peer.executable;
  }
  for (const PeerFacts& peer :
       {native("/opt/t/libexec/tessaloom-helper"), native("/opt/t/libexec/x/tessaloom"),
        native("/opt/t/libexec2/tessaloom"), native("/opt/t/libexec/tessaloom2"), native(""),
        sandboxed(""), sandboxed(editor + ".Other"), sandboxed("com.brindlemoor.tessaloom")}) {
    EXPECT_FALSE(requirement.admits(peer)) << peer.executable << " of " << peer.flatpakApplication;
  }
  EXPECT_TRUE(PeerRequirement(0, "/tessaloom-helper").admits(native("/tessaloom")));
  EXPECT_FALSE(PeerRequirement(0, "").admits(native("/tessaloom")));
}

}  // namespace
}  // namespace tessaloom
