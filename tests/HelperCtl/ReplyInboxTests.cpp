// The macOS client's way from XPC's queue to its own thread; nothing in it is macOS's.

#include <poll.h>

#include <gtest/gtest.h>

#include "macos/ReplyInbox.h"

namespace tessaloom {
namespace {

bool isReadable(const ReplyInbox& inbox, int milliseconds = 0) {
  pollfd polled{inbox.descriptor(), POLLIN, 0};
  return poll(&polled, 1, milliseconds) == 1;
}

TEST(ReplyInbox, IsReadableExactlyWhileRepliesWait) {
  ReplyInbox inbox;
  EXPECT_FALSE(isReadable(inbox));
  EXPECT_TRUE(inbox.take().empty());

  for (int round = 0; round < 2; ++round) {
    inbox.put(1, Bytes("first"));
    inbox.put(2, std::unexpected(CallError{CallError::Category::answered, "name", "message"}));
    EXPECT_TRUE(isReadable(inbox));

    const auto items = inbox.take();
    ASSERT_EQ(items.size(), 2U);
    EXPECT_EQ(items[0].call, 1U);
    EXPECT_EQ(items[0].reply.value(), "first");
    EXPECT_EQ(items[1].reply.error().name, "name");
    EXPECT_FALSE(isReadable(inbox));
  }
}

}  // namespace
}  // namespace tessaloom
