#include <fstream>
#include <vector>

#include <gtest/gtest.h>

#include "HelperCore/ScriptedKernel.h"
#include "TessaloomHelper/HelperService.h"
#include "TessaloomHelper/ManualTasks.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {
namespace {

using namespace std::chrono_literals;
using Replies = std::vector<Reply>;

class HelperServiceTest : public testing::Test {
 protected:
  // Takes every reply, so that a second one to the same call is seen.
  ReplyHandler reply() {
    return [this](Reply outcome) { replies.push_back(std::move(outcome)); };
  }

  // The only reply, which must be a body.
  Bytes body() {
    EXPECT_EQ(replies.size(), 1U);
    return std::get<Bytes>(replies.at(0));
  }

  // The only reply, which must be an error.
  ReplyError error() {
    EXPECT_EQ(replies.size(), 1U);
    return std::get<ReplyError>(replies.at(0));
  }

  TemporaryDirectory temporary;
  CLIRunner runner;
  ManualTasks tasks;
  ScriptedKernel kernel;
  GenerationLookups lookups{
      .currentUser = [] { return CurrentUser{"/nonexistent", "nobody"}; },
      .engine = [this](GenerationEngineID engine, const std::optional<CurrentUser>&)
          -> std::expected<std::filesystem::path, GenerationErrorPayload> {
        return std::unexpected(GenerationErrorPayload{failure, engine, std::nullopt, detail});
      }};
  GenerationFailureKind failure = GenerationFailureKind::binaryNotFound;
  std::optional<std::string> detail;
  GenerationCoordinator coordinator{runner, temporary.path(), lookups};
  std::filesystem::path executable = temporary / "helper";
  ExitWhenIdle exit{executable, ExecutableIdentity{1, 2, {}}, runner, tasks, [] {}};
  ServiceContext context{.coordinator = coordinator,
                         .kernel = kernel,
                         .exitWhenIdle = exit,
                         .runEngineCall =
                             [this](std::function<void()> work) {
                               tasks.runConcurrently(QualityOfService::userInitiated,
                                                     std::move(work));
                             },
                         .shortVersion = "1.0.0",
                         .maximumReplyBytes = 1'000};
  HelperService service{context};
  Replies replies;
};

const std::string request =
    R"({"requestID":"6D1B1C5E-3C7A-4F52-9B0E-5B1F1E6C7A10","engine":"codex","shape":"freeText",)"
    R"("instructions":"","prompt":"x","timeout":5})";

TEST_F(HelperServiceTest, CleansAndCutsTheVersion) {
  context.shortVersion = "1.2\n\x1b\u200b" + std::string(40, 'x');
  service.call(methodNamed("HelperCapabilities"), {}, reply());
  EXPECT_EQ(body(), R"({"names":["textGeneration.v1"],"helperVersion":"1.2)" +
                        std::string(29, 'x') + "\"}");
}

TEST_F(HelperServiceTest, DecodesBeforeItMovesTheWork) {
  service.call(methodNamed("GenerateText"), "{}", reply());
  EXPECT_EQ(error().category, ReplyError::Category::decoding);
  EXPECT_TRUE(tasks.entries.empty());

  replies.clear();
  service.call(methodNamed("GenerateText"), request, reply());
  service.call(methodNamed("GenerationEngineStatus"), R"({"engine":"codex"})", reply());
  EXPECT_TRUE(replies.empty());
  ASSERT_EQ(tasks.entries.size(), 2U);
  EXPECT_EQ(runner.unfinishedCount(), 2U);
  tasks.run();
  EXPECT_EQ(replies.size(), 2U);
  EXPECT_EQ(runner.unfinishedCount(), 0U);
}

TEST_F(HelperServiceTest, DescribesAFailedGeneration) {
  const struct {
    std::optional<std::string> detail;
    std::string description;
  } rows[] = {{std::nullopt, "launchFailed"}, {"No room.", "No room."}, {"", ""}};
  failure = GenerationFailureKind::launchFailed;
  for (const auto& row : rows) {
    replies.clear();
    detail = row.detail;
    service.call(methodNamed("GenerateText"), request, reply());
    tasks.run();
    EXPECT_EQ(error(),
              (ReplyError{ReplyError::Category::generation, "com.brindlemoor.Tessaloom.generation",
                          1, row.description, "launchFailed"}));
  }
}

TEST_F(HelperServiceTest, AnswersOnceWhenTheSystemHasNothingLeft) {
  tasks.isExhausted = true;
  service.call(methodNamed("GenerateText"), request, reply());
  EXPECT_EQ(error().localizedDescription, "The helper is out of memory.");
}

TEST_F(HelperServiceTest, LeavesOnlyAfterItHasSaidSo) {
  std::ofstream(executable).put('x');
  std::size_t scheduledBefore = 99;
  service.call(methodNamed("QuitIfOutdated"), {}, [&](const Reply& outcome) {
    EXPECT_EQ(std::get<Bytes>(outcome), R"({"isOutdated":true,"willExit":true})");
    scheduledBefore = tasks.entries.size();
  });
  EXPECT_EQ(scheduledBefore, 0U);
  ASSERT_EQ(tasks.entries.size(), 1U);
  EXPECT_EQ(tasks.entries[0].delay, 200ms);
}

/// A kernel with process 42, and a wall clock that a test sets.
class ProcessMethodsTest : public HelperServiceTest {
 protected:
  ProcessMethodsTest() {
    kernel.table = {ownRecord(42)};
    kernel.startTimes[42] = kernel.table[0].start;
    kernel.wallClock = [this] { return Instant{Instant::duration{now++}}; };
    kernel.processClock = Instant{Instant::duration{1'700'000'100}};
  }

  Bytes list() {
    replies.clear();
    service.call(methodNamed("ListProcesses"), {}, reply());
    return body();
  }
  bool kill(HelperService& asked, const Bytes& body = R"({"pid":42,"signal":15})") {
    replies.clear();
    kernel.signals.clear();
    asked.call(methodNamed("KillProcess"), body, reply());
    const bool succeeded = replies.at(0) == Reply(R"({"succeeded":true})");
    EXPECT_EQ(kernel.signals.size(), succeeded ? 1U : 0U);
    return succeeded;
  }

  static constexpr double listedAt = 1'800'000'000;
  double now = listedAt;
};

TEST_F(ProcessMethodsTest, ListsAsOfOneMomentAndRecordsAsOfTheNext) {
  kernel.table.push_back(ownRecord(43));
  const std::string row =
      R"(,"parentPID":1,"startedAt":"2023-11-14T22:13:20Z","elapsedSeconds":99,)"
      R"("residentBytes":4096,"command":"program"})";
  EXPECT_EQ(list(), R"([{"pid":42)" + row + R"(,{"pid":43)" + row + "]");
  EXPECT_EQ(now, listedAt + 1) << "the wall clock is read once, to record the rows";
  now = listedAt + 60;
  EXPECT_TRUE(kill(service));
  now = listedAt + 60.5;
  EXPECT_FALSE(kill(service));
}

TEST_F(ProcessMethodsTest, SignalsOnlyWhatItsOwnConnectionListedLast) {
  HelperService other{context};
  EXPECT_FALSE(kill(service));
  list();
  EXPECT_TRUE(kill(service));
  EXPECT_FALSE(kill(other));
  other.call(methodNamed("ListListeningPorts"), {}, reply());
  EXPECT_FALSE(kill(other));
  // A table that cannot be read is a listing too.
  kernel.table.clear();
  EXPECT_EQ(list(), "[]");
  EXPECT_FALSE(kill(service));
}

TEST_F(ProcessMethodsTest, KeepsTheLastListingWhenTheNextCannotBeSent) {
  list();
  context.maximumReplyBytes = 10;
  kernel.table = {ownRecord(99)};
  kernel.startTimes[99] = kernel.table[0].start;
  replies.clear();
  service.call(methodNamed("ListProcesses"), {}, reply());
  EXPECT_EQ(error().category, ReplyError::Category::encoding);
  EXPECT_EQ(error().code, 2);
  context.maximumReplyBytes = 1'000;
  EXPECT_FALSE(kill(service, R"({"pid":99,"signal":15})"));
  EXPECT_TRUE(kill(service));
}

TEST_F(ProcessMethodsTest, ListsPorts) {
  kernel.holders = {{42, "server", {tcpListener(0x901f)}}};
  service.call(methodNamed("ListListeningPorts"), {}, reply());
  EXPECT_EQ(body(), R"([{"port":8080,"transport":"tcp","pid":42,"processName":"server",)"
                    R"("address":"127.0.0.1"}])");
}

}  // namespace
}  // namespace tessaloom
