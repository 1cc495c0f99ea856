#include <chrono>
#include <csignal>
#include <vector>

#include <gtest/gtest.h>

#include "Client.h"
#include "GenerationRun.h"

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

 protected:
  std::vector<Handler> handlers_;

 private:
  static constexpr std::chrono::milliseconds pause{10};
};

/// Answers while a signal comes.
class InterruptedTransport final : public LateTransport {
  void process() override {
    handlers_[0]("late");
    (void)raise(SIGTERM);
  }
};

TEST(Client, TakesNoReplyForThatToALaterCall) {
  LateTransport transport;
  for (const int seconds : {0, 1}) {
    const auto reply = callAndWait(transport, "A", std::nullopt, std::chrono::seconds(seconds));
    ASSERT_FALSE(reply);
    EXPECT_EQ(reply.error().name, timedOutError);
  }
}

TEST(GenerationRun, LosesNoSignalThatComesWithTheAnswer) {
  InterruptedTransport transport;
  const GenerationRequest request(UUID::random(), GenerationEngineID::codex,
                                  GenerationShape::freeText, "", "Tea", {});
  EXPECT_EQ(runGeneration(transport, request).signal, SIGTERM);
}

}  // namespace
}  // namespace tessaloom
