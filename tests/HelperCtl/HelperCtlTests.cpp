#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Client.h"
#include "GenerationRun.h"
#include "HumanFormat.h"
#include "Table.h"

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

using testing::ElementsAre;

Table sampleTable() {
  using enum Table::Alignment;
  Table table({{"PID", right}, {"COMMAND", left, true}, {"MEMORY", right}, {"TTY", left, true}});
  table.addRow({"7", "a-rather-long-name", "1.5 MiB", "pts/0-console"});
  table.addRow({"1234", "日本語のプロセス", "24 KiB", "-"});
  table.addRow({"12", "cafe\u0301", "3 B", ""});
  return table;
}

TEST(Table, CutsWhatMayShrinkAndThenDropsTheLastColumns) {
  // The widest gives way, of two the first; a wide character is never halved.
  EXPECT_THAT(
      sampleTable().lines(42, "…"),  //
      ElementsAre(" PID  COMMAND        MEMORY  TTY", "   7  a-rather-lo…  1.5 MiB  pts/0-console",
                  "1234  日本語のプ…    24 KiB  -", "  12  cafe\u0301              3 B"));
  // Even with COMMAND at its narrowest, 24 columns lack room for the terminal.
  EXPECT_THAT(sampleTable().lines(24, "…"),  //
              ElementsAre(" PID  COMMAND     MEMORY", "   7  a-rather…  1.5 MiB",
                          "1234  日本語の…   24 KiB", "  12  cafe\u0301           3 B"));
  Table wide = sampleTable();
  wide.addRow({"1234567890", "", "", ""});  // A number is never cut.
  EXPECT_THAT(wide.lines(1, "…"),
              ElementsAre("       PID", "         7", "      1234", "        12", "1234567890"));
}

TEST(HumanFormat, SizesAgesAndDurations) {
  const std::pair<std::string, const char*> rows[] = {
      {humanBytes(999), "999 B"},          {humanBytes(1'000), "0.9 KiB"},
      {humanBytes(1'023'999), "999 KiB"},  {humanBytes(1'024'000), "0.9 MiB"},
      {humanBytes(INT64_MAX), "7.9 EiB"},  {humanAge(60), "1m 0s"},
      {humanAge(3'599), "59m 59s"},        {humanAge(86'400), "1d 0h"},
      {humanAge(3'600), "1h 0m"},          {humanAge(59), "59s"},
      {humanMilliseconds(999), "999 ms"},  {humanMilliseconds(1'960), "1.9 s"},
      {humanMilliseconds(1'000), "1.0 s"}, {humanBytes(10'240), "10 KiB"},
  };
  for (const auto& [actual, expected] : rows) EXPECT_EQ(actual, expected);
}

}  // namespace
}  // namespace tessaloom
