#include <chrono>
#include <vector>

#include <gtest/gtest.h>

#include "Client.h"

namespace tessaloom {
namespace {

/// Answers the first call, once there is a second.
class LateTransport : public Transport {
 public:
  void call(const std::string&, const std::optional<Bytes>&, Handler handler) override {
    handlers_.push_back(std::move(handler));
  }
  Readiness readiness() override { return {-1, 0, std::chrono::steady_clock::now() + pause}; }
  void process() override {
    if (handlers_.size() > 1) handlers_[0]("late");
  }

 private:
  static constexpr std::chrono::milliseconds pause{10};

  std::vector<Handler> handlers_;
};

TEST(Client, TakesNoReplyForThatToALaterCall) {
  LateTransport transport;
  for (const int seconds : {0, 1}) {
    const auto reply = callAndWait(transport, "A", std::nullopt, std::chrono::seconds(seconds));
    ASSERT_FALSE(reply);
    EXPECT_EQ(reply.error().name, timedOutError);
  }
}

}  // namespace
}  // namespace tessaloom
