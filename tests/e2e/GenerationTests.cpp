// Generations that compete, are cancelled, resist, flood, or lose their client.

#include <signal.h>

#include <cstdlib>

#include "e2e/EndToEnd.h"

namespace tessaloom {
namespace {

using nlohmann::json;

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
  const std::string no = R"({"succeeded":false})";
  const Request before{.prompt = "Too late" + touch("ran")};
  EXPECT_EQ(client.call("CancelGeneration", idBody(before.id)).body, no);
  expectKind(client.call("GenerateText", before.body()), "cancelled");
  EXPECT_TRUE(awaitFile("ran"));  // A cancellation that came first never signals the engine.
  EXPECT_FALSE(client.call("GenerateText", before.body()).isError());  // And counts once.

  const Request running{.prompt = "Wait" + touch("running") + " practice:hang"};
  const auto reply = client.send("GenerateText", running.body());
  ASSERT_TRUE(awaitFile("running"));
  EXPECT_TRUE(hasDirectory(running));
  EXPECT_EQ(client.call("CancelGeneration", idBody(running.id)).body, R"({"succeeded":true})");
  expectKind(client.await(reply), "cancelled");
  EXPECT_FALSE(hasDirectory(running));
  EXPECT_EQ(client.call("CancelGeneration", idBody(running.id)).body, no);
}

TEST_F(Generation, PastItsDeadlineIsEndedWithWhatItStarted) {
  const Request request{.prompt = "Resist practice:ignore-term practice:grandchild=600000" +
                                  touch("up") + " practice:hang",
                        .timeout = 5};
  const auto pending = client.send("GenerateText", request.body());
  ASSERT_TRUE(awaitFile("up"));
  const auto engines = childrenOf(client.helperProcess());
  ASSERT_EQ(engines.size(), 1U);
  const BusReply reply = client.await(pending);
  expectKind(reply, "timedOut");
  EXPECT_EQ(reply.message, "The command didn’t finish within 5 seconds.");
  EXPECT_TRUE(eventually([&] { return livingInGroup(engines.front()) == 0; }));
  EXPECT_FALSE(hasDirectory(request));
}

TEST_F(Generation, SurvivesFiveMebibytesOfOutput) {
  for (const char* stream : {"flood", "flood-err"}) {
    // Reading ends at the cap, and the engine then blocks until its deadline.
    const Request request{.prompt = std::string("Shout practice:") + stream + "=5242880",
                          .timeout = 5};
    expectKind(client.call("GenerateText", request.body()), "timedOut");
    EXPECT_FALSE(hasDirectory(request));
  }
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
  const std::vector<std::string> prompts{"Plain",
                                         "Fail practice:exit=3",
                                         "Die practice:signal=9",
                                         "Shout practice:flood=200000",
                                         "Lie practice:garbage",
                                         "Complain practice:flood-err=200000"};
  const auto generate = [&](int turn) {
    const Request request{.prompt = prompts[static_cast<std::size_t>(turn) % prompts.size()],
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
  })) << footprintOf(helper).descriptors
      << " descriptors instead of " << settled.descriptors << ", " << footprintOf(helper).threads
      << " threads instead of " << settled.threads;
  EXPECT_EQ(client.helperProcess(), helper);
}

}  // namespace
}  // namespace tessaloom
