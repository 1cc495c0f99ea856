// The macOS client's way from XPC's queue to its own thread; nothing in it is macOS's.

#include <poll.h>

#include <string>
#include <thread>

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

TEST(ReplyInbox, WakesTheOwnerForEveryReplyOfOtherThreads) {
  // More than a pipe holds, if each were a byte.
  constexpr std::uint64_t count = 100'000;
  ReplyInbox inbox;
  std::thread sender([&inbox] {
    for (std::uint64_t call = 1; call <= count; ++call) inbox.put(call, Bytes());
  });
  std::uint64_t last = 0;
  bool isInOrder = true;
  while (last < count && isReadable(inbox, 10'000)) {
    for (const ReplyInbox::Item& item : inbox.take()) isInOrder &= item.call == ++last;
  }
  sender.join();
  EXPECT_TRUE(isInOrder);
  EXPECT_EQ(last, count);
  EXPECT_FALSE(isReadable(inbox));
}

}  // namespace
}  // namespace tessaloom
