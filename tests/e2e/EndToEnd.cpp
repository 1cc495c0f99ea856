#include "e2e/EndToEnd.h"

namespace tessaloom {

void EndToEnd::TearDown() {
  if (isBusLost) return;
  if (const pid_t helper = client.helperProcess(); helper > 0) {
    ::kill(helper, SIGTERM);
    EXPECT_TRUE(eventually([&] { return !isAlive(helper); }));
  }
  for (const std::string& text : {bus.log(), bus.helperLog()}) {
    EXPECT_FALSE(text.contains("Sanitizer")) << text;
  }
}

}  // namespace tessaloom
