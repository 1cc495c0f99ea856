#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include "TessaloomHelper/HelperService.h"
#include "TessaloomHelper/ServiceWithoutEngines.h"

namespace tessaloom {
namespace {

class HelperServiceTest : public testing::Test, protected ServiceWithoutEngines {
 protected:
  /// Calls a method and does what that leaves to do. The only reply: a body, or what an error says.
  std::string call(HelperService& asked, std::string_view method, std::string_view body = {}) {
    std::vector<Reply> replies;  // All, so that a second one to the same call is seen.
    asked.call(*findMethod(method), body, [&](Reply reply) { replies.push_back(reply); });
    started = tasks.entries.size();
    unfinished = runner.unfinishedCount();
    tasks.run();
    EXPECT_EQ(replies.size(), 1U);
    EXPECT_EQ(runner.unfinishedCount(), 0U);
    if (const auto* bytes = std::get_if<Bytes>(&replies.at(0))) return *bytes;
    const auto& error = std::get<ReplyError>(replies.at(0));
    return std::to_string(error.code) + " " + error.localizedDescription;
  }

  bool kill(HelperService& asked, const char* body = R"({"pid":42,"signal":15})") {
    kernel.signals.clear();
    const bool succeeded = call(asked, "KillProcess", body) == R"({"succeeded":true})";
    EXPECT_EQ(kernel.signals.size(), succeeded ? 1U : 0U);
    return succeeded;
  }

  std::size_t started = 0;
  std::size_t unfinished = 0;
  HelperService service{context};
};

TEST_F(HelperServiceTest, CleansAndCutsTheVersion) {
  EXPECT_EQ(
      call(service, "HelperCapabilities"),
      R"({"names":["textGeneration.v1"],"helperVersion":"1.2)" + std::string(29, 'x') + "\"}");
}

TEST_F(HelperServiceTest, DecodesBeforeItMovesTheWork) {
  const std::string request =
      R"({"requestID":"6D1B1C5E-3C7A-4F52-9B0E-5B1F1E6C7A10","engine":"codex",)"
      R"("shape":"freeText","instructions":"","prompt":"x","timeout":5})";
  EXPECT_EQ(call(service, "GenerateText", "{}"), "3 instructions is missing");
  EXPECT_EQ(started, 0U);
  EXPECT_EQ(call(service, "GenerateText", request), "1 Could not determine the current user.");
  EXPECT_EQ(started, 1U);
  EXPECT_EQ(unfinished, 1U);
  EXPECT_EQ(call(service, "GenerateText", request), "1 launchFailed");
  EXPECT_TRUE(std::filesystem::is_empty(temporary.path()));
  tasks.isExhausted = true;
  EXPECT_EQ(call(service, "GenerateText", request), "0 The helper is out of memory.");
}

TEST_F(HelperServiceTest, ListsAsOfOneMomentAndRecordsAsOfTheNext) {
  kernel.table.push_back(ownRecord(43));
  const std::string row =
      R"(,"parentPID":1,"startedAt":"2023-11-14T22:13:20Z","elapsedSeconds":99,)"
      R"("residentBytes":4096,"command":"program"})";
  const double listedAt = now;
  EXPECT_EQ(call(service, "ListProcesses"), R"([{"pid":42)" + row + R"(,{"pid":43)" + row + "]");
  EXPECT_EQ(now, listedAt + 1) << "the wall clock is read once, to record the rows";
  now = listedAt + 60;
  EXPECT_TRUE(kill(service));
  now = listedAt + 60.5;
  EXPECT_FALSE(kill(service));
}

TEST_F(HelperServiceTest, SignalsOnlyWhatItsOwnConnectionListedLast) {
  HelperService other{context};
  EXPECT_FALSE(kill(service));
  call(service, "ListProcesses");
  EXPECT_TRUE(kill(service));
  EXPECT_FALSE(kill(other));
  // A listing that cannot be sent is none.
  context.maximumReplyBytes = 121;
  kernel.table = {ownRecord(99)};
  EXPECT_EQ(call(service, "ListProcesses"), "2 The reply has 122 bytes, more than 121.");
  EXPECT_TRUE(kill(service));
  EXPECT_FALSE(kill(service, R"({"pid":99,"signal":15})"));
  context.maximumReplyBytes = 122;
  call(service, "ListProcesses");
  EXPECT_TRUE(kill(service, R"({"pid":99,"signal":15})"));
  // A table that cannot be read is a listing too.
  kernel.table.clear();
  EXPECT_EQ(call(service, "ListProcesses"), "[]");
  EXPECT_FALSE(kill(service));
}

class ExitWhenIdleTest : public testing::Test, protected ServiceWithoutEngines {};

TEST_F(ExitWhenIdleTest, DetectsAReplacedExecutable) {
  const std::filesystem::path executable = temporary / "helper";
  const std::filesystem::path other = temporary / "other";
  for (const std::filesystem::path& file : {executable, other}) std::ofstream(file).put('x');
  const auto start = last_write_time(executable);
  const auto isReplaced =
      [&, identity = ExecutableIdentity::of(executable)](const std::filesystem::path& path) {
        return ExitWhenIdle(path, identity, runner, tasks, [] {}).isExecutableReplaced();
      };
  EXPECT_FALSE(isReplaced(executable));
  last_write_time(executable, start - std::chrono::milliseconds(1));
  EXPECT_FALSE(isReplaced(executable));
  last_write_time(executable, start + std::chrono::milliseconds(1));
  EXPECT_TRUE(isReplaced(executable));
  last_write_time(other, start - std::chrono::hours(1));
  EXPECT_TRUE(isReplaced(other)) << "another file counts even when it is older";
  EXPECT_FALSE(isReplaced(temporary / "missing"));
  EXPECT_FALSE(ExitWhenIdle(other, {}, runner, tasks, [] {}).isExecutableReplaced());
}

TEST_F(ExitWhenIdleTest, RepeatsOneCheckAndStaysWhenNothingIsLeftForIt) {
  ExitWhenIdle checked({}, {}, runner, tasks, [] { FAIL(); });
  const auto accepted = runner.accept();
  for (const bool isExhausted : {false, true, false}) {
    tasks.isExhausted = false;
    for (int i = 0; i < 2; ++i) checked.scheduleExitWhenIdle(ExitWhenIdle::firstCheck);
    tasks.isExhausted = isExhausted;
    tasks.run();
    EXPECT_EQ(tasks.entries.size(), isExhausted ? 0U : 1U);
  }
}

}  // namespace
}  // namespace tessaloom
