// Generations that compete, are cancelled, resist, flood, or lose their client.

#include <signal.h>

#include <cstdlib>

#include "e2e/EndToEnd.h"

namespace tessaloom {
namespace {

class Generation : public EndToEnd {
 protected:
  void expectKind(const BusReply& reply, const std::string& kind) {
    EXPECT_EQ(reply.errorName, "com.brindlemoor.Tessaloom.generation." + kind) << reply.message;
  }
};

TEST_F(Generation, RefusesAFourthWhileThreeAreLaunched) {
  std::vector<std::shared_ptr<BusClient::Pending>> running;
  for (const char* name : {"a", "b", "c"}) {
    running.push_back(client.send("GenerateText",
                                  Request{.prompt = "Wait" + touch(name) + waitFor("go")}.body()));
    ASSERT_TRUE(awaitFile(name));
  }
  const Request fourth{.prompt = "One more"};
  const BusReply refused = client.call("GenerateText", fourth.body());
  expectKind(refused, "engineRefused");
  EXPECT_EQ(refused.message, "Too many generations are already running.");
  EXPECT_FALSE(hasDirectory(fourth));
  EXPECT_FALSE(client.call("GenerationEngineStatus", R"({"engine":"codex"})").isError());
  createFile("go");
  for (const auto& generation : running) EXPECT_FALSE(client.await(generation).isError());
  EXPECT_FALSE(client.call("GenerateText", fourth.body()).isError());
}

TEST_F(Generation, IsCancelledBeforeWhileAndAfterItRuns) {
  const Request before{.prompt = "Too late" + touch("ran")};
  EXPECT_FALSE(cancel(before));
  expectKind(client.call("GenerateText", before.body()), "cancelled");
  EXPECT_TRUE(awaitFile("ran"));  // A cancellation that came first never signals the engine.
  EXPECT_FALSE(client.call("GenerateText", before.body()).isError());  // And counts once.

  const Request running{.prompt = "Wait" + touch("running") + " practice:hang"};
  const auto reply = client.send("GenerateText", running.body());
  ASSERT_TRUE(awaitFile("running"));
  EXPECT_TRUE(hasDirectory(running));
  EXPECT_TRUE(cancel(running));
  expectKind(client.await(reply), "cancelled");
  EXPECT_FALSE(hasDirectory(running));
  EXPECT_FALSE(cancel(running));
}

TEST_F(Generation, PastItsDeadlineIsEndedWithWhatItStarted) {
  // Reading ends at the cap, and an engine that goes on writing blocks.
  const std::vector<Request> requests{
      {.prompt = "Resist practice:ignore-term practice:grandchild=600000 practice:hang",
       .timeout = 5},
      {.prompt = "Shout practice:flood=5242880", .timeout = 5},
      {.prompt = "Complain practice:flood-err=5242880", .timeout = 5}};
  client.call("ProtocolVersion");
  const pid_t helper = client.helperProcess();
  std::vector<std::shared_ptr<BusClient::Pending>> replies;
  for (const auto& request : requests)
    replies.push_back(client.send("GenerateText", request.body()));
  std::vector<pid_t> engines;
  EXPECT_TRUE(eventually([&] { return (engines = childrenOf(helper)).size() == 3; }));
  for (const auto& pending : replies) {
    const BusReply reply = client.await(pending);
    expectKind(reply, "timedOut");
    EXPECT_EQ(reply.message, "The command didn’t finish within 5 seconds.");
  }
  for (const pid_t engine : engines) EXPECT_TRUE(eventually([&] { return !isGroupAlive(engine); }));
  for (const auto& request : requests) EXPECT_FALSE(hasDirectory(request));
}

TEST_F(Generation, EndsNormallyWhenItsClientVanishes) {
  const Request request{.prompt = "Go on" + touch("up") + waitFor("go") + touch("done")};
  {
    Child vanishing({(bus.helper().parent_path() / "tessaloom-helperctl").string(), "call",
                     "GenerateText", request.body()},
                    {"DBUS_SESSION_BUS_ADDRESS=" + bus.address()}, bus.path("vanishing"));
    ASSERT_TRUE(awaitFile("up")) << textOf(bus.path("vanishing"));
    vanishing.signal(SIGKILL);
  }
  EXPECT_EQ(client.call("ProtocolVersion").number, 1);
  EXPECT_TRUE(hasDirectory(request));
  createFile("go");
  EXPECT_TRUE(awaitFile("done"));
  EXPECT_TRUE(eventually([&] { return !hasDirectory(request); }));
  EXPECT_TRUE(eventually([&] { return childrenOf(client.helperProcess()).empty(); }));
}

// TESSALOOM_GENERATIONS sets how many.
TEST_F(Generation, ManyLeaveTheHelperAsItWas) {
  const char* wanted = std::getenv("TESSALOOM_GENERATIONS");
  const int count = wanted != nullptr ? std::atoi(wanted) : 25;
  const std::string words[] = {"exit=0",       "exit=3",  "signal=9",
                               "flood=200000", "garbage", "flood-err=200000"};
  const auto generate = [&](int turn) {
    const Request request{.prompt = "Do practice:" + words[turn % std::ssize(words)],
                          .engine = turn % 2 == 0 ? "codex" : "claudeCode"};
    client.call("GenerateText", request.body());
    EXPECT_FALSE(hasDirectory(request));
  };
  for (int turn = 0; turn < 6; ++turn) generate(turn);
  const pid_t helper = client.helperProcess();
  ProcessFootprint settled;
  const auto hasSettled = [&] { return std::exchange(settled, footprintOf(helper)) == settled; };
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ASSERT_TRUE(eventually(hasSettled));
  for (int turn = 0; turn < count; ++turn) generate(turn);
  EXPECT_TRUE(eventually([&] {
    const ProcessFootprint now = footprintOf(helper);
    return now.descriptors == settled.descriptors && now.threads <= settled.threads &&
           now.children == 0;
  }));
  EXPECT_EQ(client.helperProcess(), helper);
}

}  // namespace
}  // namespace tessaloom
