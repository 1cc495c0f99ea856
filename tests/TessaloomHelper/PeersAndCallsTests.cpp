#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <expected>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "TessaloomHelper/ServiceWithoutEngines.h"
#include "linux/CallScheduler.h"
#include "linux/PeerRegistry.h"
#include "support/ScriptedBus.h"

namespace tessaloom {
namespace {

using Texts = std::vector<std::string>;

/// The registry and the scheduler, joined as the listener joins them. Even processes are the
/// editor's.
class PeersAndCallsTest : public testing::Test,
                          protected ScriptedBus,
                          protected ServiceWithoutEngines {
 protected:
  PeersAndCallsTest() {
    context.runEngineCall = [](const auto& work) { work(); };
    sd_bus_slot* slot = nullptr;
    EXPECT_GE(sd_bus_add_filter(connection(), &slot, onCall, this), 0);
    filter_.reset(slot);
  }

  /// From the connection :1.SENDER.
  void call(int sender, const char* method, std::string_view body = {}) {
    sd_bus_message* call = newCall("com.example.Interface", method);
    if (findMethod(method)->takesRequest()) {
      sd_bus_message_append_array(call, 'y', body.data(), body.size());
    }
    sendAs((":1." + std::to_string(sender)).c_str(), call);
  }

  /// Answers the question of who called last.
  void introduce(std::uint32_t process, std::uint32_t user = getuid()) {
    reply(BusRequests::busName, asked("GetConnectionCredentials"), "a{sv}", 3, "ProcessID", "u",
          process, "LinuxSecurityLabel", "s", "none", "UnixUserID", "u", user);
  }

  void firstCall(int sender, std::uint32_t process) {
    received.clear();
    call(sender, "ProtocolVersion");
    introduce(process);
  }

  void admit(int sender, std::uint32_t process) {
    firstCall(sender, process);
    settle();
    received.clear();
  }

  /// Does what there is to do, save the engines' work.
  void settle() {
    for (int round = 0; round < 3; ++round) {
      runChecks(false);
      queueTasks.run();
      completions.runAll();
      scheduler.sendReplies();
      exchange();
    }
  }

  /// Runs the checks of callers, or else the time limits, until nothing more comes of it.
  void runChecks(bool isTimer) {
    auto& entries = checkTasks.entries;
    for (auto entry = entries.begin(); entry != entries.end();) {
      if ((entry->quality == QualityOfService::utility) != isTimer) {
        ++entry;
        continue;
      }
      const auto task = std::move(entry->task);
      entries.erase(entry);
      task();
      completions.runAll();
      entry = entries.begin();
    }
    exchange();
  }

  std::ptrdiff_t checksAtOnce() const {
    return std::ranges::count(checkTasks.entries, QualityOfService::userInitiated,
                              &ManualTasks::Entry::quality);
  }

  /// Has an engine end.
  void endEngine() {
    const auto work = std::move(engineTasks.entries.front().task);
    engineTasks.entries.erase(engineTasks.entries.begin());
    work();
    settle();
  }

  /// What was answered since this was last asked: to whom, and the types or the error's name.
  Texts answers() {
    exchange();
    Texts texts;
    for (const BusMessage& message : std::exchange(received, {})) {
      if (sd_bus_message_get_member(message.get()) != nullptr) continue;
      const sd_bus_error* error = sd_bus_message_get_error(message.get());
      std::string said =
          error != nullptr ? error->name : sd_bus_message_get_signature(message.get(), 1);
      said.erase(0, said.rfind('.') + 1);
      texts.push_back(std::string(sd_bus_message_get_destination(message.get())).substr(3) + " " +
                      said);
    }
    return texts;
  }

  BusRequests requests{connection()};
  CompletionQueue completions;
  ManualTasks checkTasks, queueTasks, engineTasks;
  bool hasDescriptors = true;
  PeerCheckRunner checks{completions, checkTasks,
                         [this](pid_t process) -> std::expected<bool, int> {
                           if (!hasDescriptors) return std::unexpected(EMFILE);
                           if (process > 200) return std::unexpected(ESRCH);
                           return process % 2 == 0;
                         },
                         [this] { hasDescriptors = true; }, std::chrono::milliseconds(0)};
  PeerRegistry registry{connection(), requests, checks, getuid(), queueTasks, context};
  CallScheduler scheduler{connection(), completions, engineTasks};

 private:
  static int onCall(sd_bus_message* call, void* userdata, sd_bus_error* /*error*/) {
    auto& test = *static_cast<PeersAndCallsTest*>(userdata);
    std::uint8_t type = 0;
    sd_bus_message_get_type(call, &type);
    if (type != SD_BUS_MESSAGE_METHOD_CALL) return 0;
    const int result = test.registry.authorize(call);
    if (result != 0) return result;
    return test.scheduler.accept(call, *findMethod(sd_bus_message_get_member(call)),
                                 test.registry.find(sd_bus_message_get_sender(call))->connection);
  }

  BusSlot filter_;
};

TEST_F(PeersAndCallsTest, VetsACallerAtItsFirstCallAndHoldsWhatItSends) {
  call(1, "ListProcesses");
  call(1, "ProtocolVersion");
  EXPECT_TRUE(registry.hasHeldCalls());
  introduce(2);
  EXPECT_EQ(answers(), Texts{});
  settle();
  EXPECT_EQ(answers(), (Texts{"1 ay", "1 x"})) << "in the order of the calls";
  call(1, "ProtocolVersion");
  EXPECT_EQ(answers(), Texts{"1 x"}) << "nothing is queued, and it is known";
  EXPECT_FALSE(registry.hasHeldCalls());

  call(2, "ProtocolVersion");
  introduce(2, getuid() + 1);
  call(3, "ProtocolVersion");
  introduce(3);
  call(4, "ProtocolVersion");
  reply(BusRequests::busName, asked("GetConnectionCredentials"), "a{sv}", 1, "UnixUserID", "u",
        getuid());
  settle();
  call(3, "ProtocolVersion");
  EXPECT_EQ(answers(),
            (Texts{"2 AccessDenied", "4 AccessDenied", "3 AccessDenied", "3 AccessDenied"}));
  for (const auto& [sender, types] : {std::pair{":1.3", ""}, {":1.6", "i"}, {":1.7", "s"}}) {
    sd_bus_message* message = newCall("com.example.Interface", "ProtocolVersion");
    sd_bus_message_append(message, types, "text");
    sd_bus_message_set_expect_reply(message, *types == '\0' ? 0 : 1);
    sendAs(sender, message);
  }
  introduce(2);
  settle();
  EXPECT_EQ(answers(), (Texts{"6 InvalidArgs", "7 x"})) << "the first wants none, no method has i";
  for (int time = 0; time < 2; ++time) {  // Without an answer, it is asked again.
    call(5, "ProtocolVersion");
    replyError(BusRequests::busName, asked("GetConnectionCredentials"), SD_BUS_ERROR_NO_MEMORY);
    EXPECT_EQ(answers(), Texts{"5 LimitsExceeded"});
  }
}

TEST_F(PeersAndCallsTest, ChecksOneProcessAtATimeAndBoundsHowManyWait) {
  for (int sender = 1; sender <= 65; ++sender) firstCall(sender, 7);
  EXPECT_EQ(answers(), Texts{"65 LimitsExceeded"});
  EXPECT_EQ(checksAtOnce(), 1);
  for (const int process : {8, 9, 10, 11, 300}) {
    firstCall(100 + process, static_cast<std::uint32_t>(process));
  }
  EXPECT_EQ(checksAtOnce(), 4);
  hasDescriptors = false;  // Which is no refusal: the first check has some released.
  runChecks(false);
  const Texts said = answers();
  EXPECT_EQ(said.size(), 64U + 5);
  for (const char* admitted : {"108 x", "110 x"}) EXPECT_EQ(std::ranges::count(said, admitted), 1);
  EXPECT_EQ(std::ranges::count(said, "400 AccessDenied"), 1);
}

TEST_F(PeersAndCallsTest, GivesUpAfterTheTimeLimitAndGoesOnWithOthers) {
  // Each round leaves as many behind whose thread never comes back.
  for (int stuck = 0; stuck < 20; stuck += 4) {
    for (int i = stuck; i <= stuck + 4; ++i) firstCall(i, static_cast<std::uint32_t>(2 * i));
    EXPECT_EQ(std::ssize(checkTasks.entries), stuck + 4 + 1) << "and one timer";
    runChecks(true);
    EXPECT_EQ(answers().size(), 5U) << "one had to wait";
  }
  firstCall(50, 50);
  firstCall(51, 0);  // Its first check still hangs.
  EXPECT_EQ(checksAtOnce(), 20) << "no other thread";
  runChecks(false);
  EXPECT_EQ(answers(), (Texts{"50 x", "51 x"})) << "what came too late does not count";
}

TEST_F(PeersAndCallsTest, BoundsWhatIsHeld) {
  for (std::size_t i = 0; i <= PeerRegistry::maximumHeldCalls; ++i) call(1, "ProtocolVersion");
  EXPECT_EQ(answers(), Texts{"1 LimitsExceeded"});
  // A path counts, too.
  const std::string most(PeerRegistry::maximumHeldBytes - 1, 'x');
  for (const int sender : {2, 3, 4}) call(sender, "GenerateText", most);
  EXPECT_EQ(answers(), Texts{});
  call(2, "ProtocolVersion");
  EXPECT_EQ(answers(), Texts{"2 LimitsExceeded"}) << "it holds as much as it may";
  // With the 64 calls of the first, these are what may be held in all.
  call(5, "GenerateText", most.substr(64));
  EXPECT_EQ(answers(), Texts{});
  call(5, "ProtocolVersion");
  const Texts refused = answers();
  EXPECT_EQ(refused.size(), 1U) << "of those that hold most, one is refused";
  EXPECT_NE(refused, Texts{"5 LimitsExceeded"});
  call(6, "GenerateText", most);
  EXPECT_EQ(answers(), Texts{"6 LimitsExceeded"}) << "it would hold as much as any";
}

TEST_F(PeersAndCallsTest, BoundsTheConnections) {
  for (std::size_t i = 0; i < PeerRegistry::maximumAdmitted; ++i) admit(static_cast<int>(i), 2);
  for (const auto& [sender, answer] : {std::pair{500, "500 LimitsExceeded"}, {501, "501 x"}}) {
    firstCall(sender, 2);
    settle();
    EXPECT_EQ(answers(), Texts{answer});
    reportOwner(BusRequests::busName, ":1.0", "");
  }
  const int first = 1'000;
  const int last = first + static_cast<int>(PeerRegistry::maximumOthers);
  for (int sender = first; sender < last; ++sender) call(sender, "ProtocolVersion");
  introduce(3);
  call(last, "ProtocolVersion");
  settle();  // One is refused, and gives way.
  call(last, "ProtocolVersion");
  EXPECT_EQ(answers(), (Texts{"5096 LimitsExceeded", "5095 AccessDenied"}));
}

TEST_F(PeersAndCallsTest, CarriesOutCallsOfACallerThatHasDisconnected) {
  call(1, "ListProcesses");
  call(1, "KillProcess", R"({"pid":42,"signal":15})");
  introduce(2);
  reportOwner(BusRequests::busName, ":1.1", "");
  settle();
  EXPECT_EQ(kernel.signals.size(), 1U);
  admit(2, 4);
  EXPECT_EQ(registry.find(":1.1"), nullptr);

  // Its generation goes on, and the result is sent to nobody.
  call(2, "GenerateText");
  reportOwner(BusRequests::busName, ":1.2", "");
  EXPECT_EQ(registry.find(":1.2"), nullptr);
  EXPECT_TRUE(scheduler.hasEngineCalls() && scheduler.hasRunningCalls());
  endEngine();
  EXPECT_EQ(answers(), Texts{});
  EXPECT_EQ(scheduler.unansweredCount(), 0U);
}

TEST_F(PeersAndCallsTest, AnswersWhatFindsNoThread) {
  for (const int sender : {10, 11, 12}) {  // For the first not even a timer, for the last no check.
    checkTasks.isExhausted = sender != 11;
    firstCall(sender, static_cast<std::uint32_t>(sender));
    EXPECT_EQ(answers().size(), sender == 10 ? 1U : 0U);
    EXPECT_EQ(checkTasks.entries.size(), sender == 10 ? 0U : 2U);
  }
  settle();
  EXPECT_EQ(answers(), (Texts{"12 LimitsExceeded", "11 AccessDenied"}));
  checkTasks.isExhausted = false;
  admit(1, 2);
  for (const bool isExhausted : {true, false, true}) {
    queueTasks.isExhausted = engineTasks.isExhausted = isExhausted;
    call(1, "GenerateText");
    call(1, "ListProcesses");
    settle();
    if (!isExhausted) endEngine();
    const Texts expected =
        isExhausted ? Texts{"1 NoMemory", "1 NoMemory"} : Texts{"1 ay", "1 DecodingError"};
    EXPECT_EQ(answers(), expected);
  }
}

TEST_F(PeersAndCallsTest, SharesTheEnginesAndTheConnection) {
  for (int caller = 1; caller <= 5; ++caller) {
    admit(caller, static_cast<std::uint32_t>(2 * caller));
    for (int i = 0; i < 14; ++i) call(caller, "GenerationEngineStatus");
  }
  EXPECT_EQ(engineTasks.entries.size(), 48U) << "all of three, 6 of the next";
  for (int i = 0; i < 48; ++i) endEngine();
  answers();
  // The others, in the order in which they were started: by who had waited for the longest time.
  while (!engineTasks.entries.empty()) endEngine();
  std::string started;
  for (const auto& text : answers()) started += text[0];
  EXPECT_EQ(started, "5454545454545454555555");

  for (const int caller : {2, 3}) {
    for (int i = 0; i < 3; ++i) call(caller, "ListListeningPorts");
  }
  EXPECT_EQ(queueTasks.entries.size(), 2U) << "one of each at a time";
  settle();
  EXPECT_EQ(answers(), (Texts{"2 ay", "3 ay", "2 ay", "3 ay", "2 ay", "3 ay"}));
}

TEST_F(PeersAndCallsTest, QueuesFewRepliesWhileTheBusTakesNone) {
  for (const int process : {2, 3, 5}) admit(process, static_cast<std::uint32_t>(process));
  for (std::size_t i = 0; i < PeerRegistry::assuredRefusals; ++i) call(3, "ProtocolVersion");
  isReading = false;
  const int little = 4'096;  // Of its replies the kernel takes few, too.
  ::setsockopt(sd_bus_get_fd(connection()), SOL_SOCKET, SO_SNDBUF, &little, sizeof little);
  const auto queuedAfter = [&](int sender, int calls) {
    for (int i = 0; i < calls; ++i) call(sender, "ProtocolVersion");
    std::uint64_t queued = 0;
    sd_bus_get_n_queued_write(connection(), &queued);
    return queued;
  };
  constexpr auto most = CallScheduler::maximumQueuedReplies + 1;
  EXPECT_EQ(queuedAfter(3, 2'000), most) << "to one that is refused";
  EXPECT_EQ(queuedAfter(5, 100), most + PeerRegistry::assuredRefusals);
  constexpr auto refusals = CallScheduler::maximumRefusals;
  EXPECT_EQ(queuedAfter(2, 64 + refusals + 1), most + PeerRegistry::assuredRefusals) << "kept back";
  EXPECT_EQ(scheduler.unansweredCount(), 64 + refusals);
  isReading = true;
  while (scheduler.unansweredCount() > 0) settle();
  EXPECT_EQ(std::ranges::count(answers(), "2 x"), 64) << "and as many refusals as wait at most";

  isReading = false;
  context.maximumReplyBytes = 2 * CallScheduler::maximumQueuedBytes;
  kernel.table.resize(3'000, ownRecord(42));
  call(2, "ListProcesses");
  settle();
  EXPECT_EQ(queuedAfter(2, 2), 1U) << "behind many bytes";
  isReading = true;
  settle();
  EXPECT_EQ(queuedAfter(2, 1), 0U);
  EXPECT_EQ(answers(), (Texts{"2 ay", "2 x", "2 x", "2 x"}));
}

TEST_F(PeersAndCallsTest, BoundsTheCallsOfEachAndOfAll) {
  admit(100, 2);
  admit(101, 2);  // Of the same process, and so the same caller.
  for (int i = 0; i < 16; ++i) call(100 + i % 2, "GenerateText");
  EXPECT_EQ(engineTasks.entries.size(), 16U) << "none waits behind another";
  call(101, "GenerateText");
  settle();
  EXPECT_EQ(answers(), Texts{"101 LimitsExceeded"});
  endEngine();
  call(100, "GenerateText");
  while (!engineTasks.entries.empty()) endEngine();
  EXPECT_EQ(std::ranges::count(answers(), "100 DecodingError"), 9) << "one ended, one more came";
  EXPECT_FALSE(scheduler.hasEngineCalls());

  for (int caller = 0; caller <= 16; ++caller) {
    admit(caller, static_cast<std::uint32_t>(10 + 2 * caller));
  }
  for (int i = 0; i < 64 * 16 + 2; ++i) call(i / 64, "ListProcesses");
  scheduler.sendReplies();
  EXPECT_EQ(answers(), Texts{"16 LimitsExceeded"}) << "one is accepted even then";
  settle();
  EXPECT_EQ(answers().size(), CallScheduler::maximumCalls + 1);

  const std::string body(CallLoad::maximumBytes, 'x');
  for (int caller = 0; caller < 8; ++caller) call(caller, "GenerateText", body);
  for (const auto& [caller, size] : {std::pair{8, CallScheduler::moderateBytes + 1},
                                     {9, CallScheduler::moderateBytes},
                                     {9, std::size_t{1}}}) {
    call(caller, "GenerateText", body.substr(0, size));
  }
  settle();
  EXPECT_EQ(answers(), (Texts{"8 LimitsExceeded", "9 LimitsExceeded"}));
  while (!engineTasks.entries.empty()) endEngine();
}

}  // namespace
}  // namespace tessaloom
