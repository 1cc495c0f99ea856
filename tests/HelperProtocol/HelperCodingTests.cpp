#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <unordered_set>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include "HelperProtocol/CodingError.h"
#include "HelperProtocol/EngineStatus.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/GenerationErrorPayload.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationResult.h"
#include "HelperProtocol/HelperCapabilities.h"
#include "HelperProtocol/HelperCoding.h"
#include "HelperProtocol/HelperDTOError.h"
#include "HelperProtocol/HelperFreshness.h"
#include "HelperProtocol/ProcessMessages.h"

using namespace std::string_literals;

namespace tessaloom {
namespace {

using Kind = DecodingError::Kind;

const std::string upperUUID = "0F8FAD5B-D9CB-469F-A165-70867728950E";
const std::string lowerUUID = "0f8fad5b-d9cb-469f-a165-70867728950e";

UUID someUUID() {
  return UUID::parse(upperUUID).value();
}

Instant instant(double seconds) {
  return Instant(std::chrono::duration<double>(seconds));
}

template <class Record>
Record decode(const std::string& body) {
  return HelperCoding::makeDecoder().decode<Record>(body);
}

template <class Record>
void expectWire(const Record& record, const std::string& body) {
  EXPECT_EQ(HelperCoding::makeEncoder().encode(record), body);
  EXPECT_EQ(decode<Record>(body), record) << body;
}

// The examples of the protocol's documentation are held against the coding too; these are what they
// do not show.
TEST(HelperCodingTests, WritesMembersInDeclaredOrderAndReadsThemBack) {
  using enum GenerationEngineID;
  expectWire(HelperFreshness(false, true), R"({"isOutdated":false,"willExit":false})");
  expectWire(GenerationRequest(someUUID(), claudeCode, GenerationShape::itemFields, "a\"\\/",
                               "\u00E9\n\r\t\U0001F600", GenerationTimeout(5)),
             R"({"requestID":")" + upperUUID +
                 R"(","engine":"claudeCode","shape":"itemFields","instructions":"a\"\\/",)"
                 "\"prompt\":\"\u00E9\\n\\r\\t\U0001F600\",\"timeout\":5}");
  expectWire(
      GenerationResult{.requestID = someUUID(),
                       .engine = codex,
                       .text = "x",
                       .fields = GeneratedFields("d", {"t", "u"}, {}, true),
                       .tokens = GenerationTokens{1, -2, INT64_MAX},
                       .durationMilliseconds = INT64_MIN},
      R"({"requestID":")" + upperUUID +
          R"(","engine":"codex","text":"x","fields":{"itemDescription":"d","tags":["t","u"],)"
          R"("globs":[],"alwaysApply":true},"tokens":{"input":1,"output":-2,)"
          R"("cachedInput":9223372036854775807},"durationMilliseconds":-9223372036854775808})");
  expectWire(GenerationResult{.requestID = someUUID(),
                              .engine = codex,
                              .text = "a\0b"s,
                              .fields = std::nullopt,
                              .tokens = std::nullopt,
                              .durationMilliseconds = 0},
             R"({"requestID":")" + upperUUID +
                 R"(","engine":"codex","text":"a\u0000b","durationMilliseconds":0})");
  for (const auto kind : allGenerationFailureKinds) {
    expectWire(GenerationErrorPayload{.kind = kind, .engine = claudeCode},
               R"({"kind":")" + std::string(wireValue(kind)) + R"(","engine":"claudeCode"})");
  }
  expectWire(GenerationErrorPayload{.kind = GenerationFailureKind::nonZeroExit,
                                    .engine = codex,
                                    .exitCode = -1,
                                    .detail = "no"},
             R"({"kind":"nonZeroExit","engine":"codex","exitCode":-1,"detail":"no"})");
  expectWire(
      EngineStatus{
          .engine = codex, .binaryFound = true, .authenticated = false, .version = "0.169.0"},
      R"({"engine":"codex","binaryFound":true,"authenticated":false,"version":"0.169.0"})");
  expectWire(KillRequest{.pid = ProcessID(2'147'483'647), .signal = Signal::kill},
             R"({"pid":2147483647,"signal":9})");
  expectWire(KillResult{.succeeded = false, .message = ""}, R"({"succeeded":false,"message":""})");
  expectWire(std::vector<ProcessSample>{}, "[]");
  expectWire(std::vector<ProcessSample>{{-1, 0, std::nullopt, instant(0), -5, 4096, "sh"},
                                        {2, 1, "pts/0", instant(1'795'255'200), 1, 0, ""}},
             R"([{"pid":-1,"parentPID":0,"startedAt":"1970-01-01T00:00:00Z","elapsedSeconds":-5,)"
             R"("residentBytes":4096,"command":"sh"},{"pid":2,"parentPID":1,"tty":"pts/0",)"
             R"("startedAt":"2026-11-21T10:00:00Z","elapsedSeconds":1,"residentBytes":0,)"
             R"("command":""}])");
}

TEST(HelperCodingTests, EscapesEveryControl) {
  std::string text;
  for (char c = 0; c < 0x20; ++c) text += c;
  const auto body = HelperCoding::makeEncoder().encode(
      KillResult{.succeeded = true, .message = text + "\"\\/\x7F\u2028"});
  EXPECT_EQ(body.substr(0, body.find("\\u0010")),
            R"({"succeeded":true,"message":"\u0000\u0001\u0002\u0003\u0004\u0005\u0006\u0007)"
            R"(\b\t\n\u000b\f\r\u000e\u000f)");
  EXPECT_EQ(decode<KillResult>(body).message, text + "\"\\/\x7F\u2028");
}

TEST(HelperCodingTests, ReadsWhatAnotherWriterMayWrite) {
  EXPECT_EQ(decode<KillRequest>("\n{ \"signal\" : 2.0e0 , \"unknown\":[{}], \"pid\":1.0 }\t"),
            (KillRequest{.pid = ProcessID(1), .signal = Signal::interrupt}));
  EXPECT_EQ(decode<KillResult>(R"({"succeeded":true,"message":null})").message, std::nullopt);
  EXPECT_EQ(decode<GenerationCancelRequest>(R"({"requestID":")" + lowerUUID + R"("})").requestID,
            someUUID());
  EXPECT_TRUE(decode<HelperFreshness>(R"({"isOutdated":false,"willExit":true})").willExit());
  EXPECT_EQ(decode<HelperCapabilities>(R"({"names":["b","a","b"],"helperVersion":""})").names,
            (std::set<std::string>{"a", "b"}));
}

struct Refusal {
  Kind kind;
  std::string path;
  friend bool operator==(const Refusal&, const Refusal&) = default;
};
using Outcome = std::variant<std::monostate, Refusal, GenerationDTOError, HelperDTOError>;

template <class Record>
Outcome outcomeOf(const std::string& body) {
  try {
    decode<Record>(body);
    return {};
  } catch (const DecodingError& error) {
    return Refusal{error.kind(), error.path()};
  } catch (const GenerationDTOError& error) {
    return error;
  } catch (const HelperDTOError& error) {
    return error;
  }
}

struct RefusedBody {
  std::string body;
  Outcome expected;
};

TEST(HelperCodingTests, RefusesKillRequestsByName) {
  const std::vector<RefusedBody> rows{
      {"", Refusal{Kind::dataCorrupted, ""}},
      {"[]", Refusal{Kind::typeMismatch, ""}},
      {"null", Refusal{Kind::typeMismatch, ""}},
      {R"({"signal":9})", Refusal{Kind::keyNotFound, "pid"}},
      {R"({"pid":null,"signal":9})", Refusal{Kind::keyNotFound, "pid"}},
      {R"({"pid":true,"signal":9})", Refusal{Kind::typeMismatch, "pid"}},
      {R"({"pid":5.7,"signal":9})", Refusal{Kind::typeMismatch, "pid"}},
      {R"({"pid":2147483648,"signal":9})", Refusal{Kind::numberDoesNotFit, "pid"}},
      {R"({"pid":4294967297,"signal":9})", Refusal{Kind::numberDoesNotFit, "pid"}},
      {R"({"pid":-2147483649,"signal":9})", Refusal{Kind::numberDoesNotFit, "pid"}},
      {R"({"pid":18446744073709551617,"signal":9})", Refusal{Kind::numberDoesNotFit, "pid"}},
      {R"({"pid":0,"signal":3})", HelperDTOError::invalidPID(0)},
      {R"({"pid":-2147483648,"signal":9})", HelperDTOError::invalidPID(INT32_MIN)},
      {R"({"pid":1,"signal":3})", Refusal{Kind::dataCorrupted, "signal"}},
      {R"({"pid":1,"signal":true})", Refusal{Kind::typeMismatch, "signal"}},
      {R"({"pid":1})", Refusal{Kind::keyNotFound, "signal"}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(outcomeOf<KillRequest>(row.body), row.expected) << row.body;
  }
}

TEST(HelperCodingTests, ReadsAGenerationRequestInItsOwnOrder) {
  struct Row {
    std::string instructions;
    std::string prompt;
    const char* requestID;
    const char* engine;
    const char* shape;
    const char* timeout;
    Outcome expected;
  };
  const auto letters = [](std::size_t count) { return std::string(count, 'x'); };
  const std::string good = lowerUUID;
  const std::vector<Row> rows{
      {letters(8'999) + "\\u0000", letters(64'001), "-", "Codex", "7", "301",
       GenerationDTOError::controlCharacters()},
      {letters(64'000) + "\\u0000", "\\u001b", "-", "Codex", "7", "301",
       GenerationDTOError::textTooLong(64'000, 64'001)},
      {letters(9'000), letters(64'001), "-", "Codex", "7", "301",
       GenerationDTOError::textTooLong(64'000, 64'001)},
      {letters(9'000), "\\u001b", "-", "Codex", "7", "301",
       GenerationDTOError::controlCharacters()},
      {letters(9'000), letters(64'000), "-", "Codex", "7", "301",
       GenerationDTOError::textTooLong(8'000, 9'000)},
      {letters(8'000), "", "-", "Codex", "7", "301", Refusal{Kind::dataCorrupted, "requestID"}},
      {"", "", good.c_str(), "Codex", "7", "301", Refusal{Kind::dataCorrupted, "engine"}},
      {"", "", good.c_str(), "codex", "7", "301", Refusal{Kind::typeMismatch, "shape"}},
      {"", "", good.c_str(), "codex", "\"freeText\"", "301",
       GenerationDTOError::timeoutOutOfRange(301)},
      {"", "", good.c_str(), "codex", "\"freeText\"", "300.0", {}},
  };
  for (const auto& row : rows) {
    std::string body = R"({"timeout":)";  // the last that is read comes first
    body.append(row.timeout).append(R"(,"shape":)").append(row.shape);
    body.append(R"(,"engine":")").append(row.engine);
    body.append(R"(","requestID":")").append(row.requestID);
    body.append(R"(","prompt":")").append(row.prompt);
    body.append(R"(","instructions":")").append(row.instructions).append("\"}");
    EXPECT_EQ(outcomeOf<GenerationRequest>(body), row.expected) << body.substr(0, 120);
  }
  try {
    decode<GenerationRequest>(R"({"prompt":"","instructions":")" + letters(8'001) + "\"}");
    FAIL();
  } catch (const GenerationDTOError& error) {
    EXPECT_STREQ(error.what(),
                 "instructions: The text has 8001 characters, more than the 8000 allowed.");
  }
}

TEST(HelperCodingTests, NamesTheWayToWhatIsWrong) {
  const std::string fields = R"({"itemDescription":"","tags":["a",1],"globs":[],"alwaysApply":1})";
  const std::string result =
      R"({"requestID":")" + upperUUID + R"(","engine":"codex","text":"","fields":)" + fields + "}";
  EXPECT_EQ(outcomeOf<GenerationResult>(result),
            Outcome(Refusal{Kind::typeMismatch, "fields.tags[1]"}));
  EXPECT_EQ(
      outcomeOf<std::vector<PortSample>>(
          R"([{"port":1,"transport":"tcp","pid":2,"processName":"","address":""},{"port":1}])"),
      Outcome(Refusal{Kind::keyNotFound, "[1].transport"}));
  EXPECT_EQ(outcomeOf<std::vector<PortSample>>("[null]"),
            Outcome(Refusal{Kind::typeMismatch, "[0]"}));
  EXPECT_EQ(outcomeOf<std::vector<PortSample>>("{}"), Outcome(Refusal{Kind::typeMismatch, ""}));
  EXPECT_EQ(outcomeOf<HelperFreshness>(R"({"isOutdated":false})"),
            Outcome(Refusal{Kind::keyNotFound, "willExit"}));
  EXPECT_EQ(outcomeOf<HelperFreshness>(R"({"isOutdated":0,"willExit":true})"),
            Outcome(Refusal{Kind::typeMismatch, "isOutdated"}));
  EXPECT_EQ(outcomeOf<GeneratedFields>(R"({"itemDescription":"","tags":[)" +
                                       std::string("0,0,0,0,0,0,0,0,0,0,0,0,0") + "]}"),
            Outcome(Refusal{Kind::typeMismatch, "tags[0]"}));

  EXPECT_STREQ(DecodingError(Kind::keyNotFound, "fields.tags", "is missing").what(),
               "fields.tags is missing");
  const DecodingError hostile(Kind::dataCorrupted, "a\n\xFF", std::string(600, 'x'));
  EXPECT_EQ(hostile.what(), "a\uFFFD " + std::string(497, 'x'));
}

TEST(HelperCodingTests, CleansTheTextsOfListingsThatItReads) {
  const auto sample = decode<ProcessSample>(
      R"({"pid":1,"parentPID":0,"tty":"pts\t/0","startedAt":"1969-12-31T23:59:59Z",)"
      R"("elapsedSeconds":1,"residentBytes":1,"command":")" +
      std::string(300, 'x') + "\"}");
  EXPECT_EQ(sample, ProcessSample(1, 0, "pts/0", instant(-1), 1, 1, std::string(256, 'x')));
  const auto port = decode<PortSample>(
      R"({"port":70000,"transport":"transport","pid":-1,"processName":"a\u202eb","address":")" +
      std::string(70, '1') + "\"}");
  EXPECT_EQ(port, PortSample(70'000, "transpor", -1, "ab", std::string(64, '1')));
  EXPECT_EQ(PortSample(8080, "tcp", 4242, "", "127.0.0.1").id(), "tcp/127.0.0.1/8080/4242");
  EXPECT_EQ((std::unordered_set<ProcessSample>{sample, sample}.size()), 1U);
  EXPECT_EQ((std::unordered_set<PortSample>{port, port}.size()), 1U);
}

ProcessSample startedAt(Instant instant) {
  return {1, 0, std::nullopt, instant, 0, 0, ""};
}

TEST(HelperCodingTests, WritesDatesToTheSecondRoundedDown) {
  struct Row {
    double seconds;
    const char* text;
  };
  const std::vector<Row> rows{
      {1'795'255'200.999, "2026-11-21T10:00:00Z"}, {-0.25, "1969-12-31T23:59:59Z"},
      {951'782'399, "2000-02-28T23:59:59Z"},       {951'782'400, "2000-02-29T00:00:00Z"},
      {-62'167'219'200, "0000-01-01T00:00:00Z"},   {253'402'300'799.5, "9999-12-31T23:59:59Z"},
  };
  for (const auto& row : rows) {
    const auto body = HelperCoding::makeEncoder().encode(startedAt(instant(row.seconds)));
    EXPECT_NE(body.find(row.text), std::string::npos) << body;
    EXPECT_EQ(decode<ProcessSample>(body).startedAt(), instant(std::floor(row.seconds)));
  }
  for (const double seconds :
       {-62'167'219'200.5, 253'402'300'800.0, 1e300, std::numeric_limits<double>::infinity(),
        std::numeric_limits<double>::quiet_NaN()}) {
    EXPECT_THROW(HelperCoding::makeEncoder().encode(startedAt(instant(seconds))), EncodingError);
  }
}

TEST(HelperCodingTests, RefusesDatesOfAnyOtherForm) {
  const std::string body = HelperCoding::makeEncoder().encode(startedAt(instant(0)));
  const std::string epoch = "1970-01-01T00:00:00Z";
  for (const char* date :
       {"2026-11-21T10:00:00.5Z", "2026-11-21T10:00:00", "2026-11-21T10:00:00+00:00",
        "2026-11-21T10:00:00z", "2026-11-21 10:00:00Z", "2026-02-29T10:00:00Z",
        "2100-02-29T10:00:00Z", "2026-13-01T10:00:00Z", "2026-00-01T10:00:00Z",
        "2026-01-00T10:00:00Z", "2026-04-31T10:00:00Z", "2026-11-21T24:00:00Z",
        "2026-11-21T10:60:00Z", "2026-11-21T23:59:60Z", "-026-11-21T10:00:00Z",
        "2026-11-21T+1:00:00Z", "02026-11-21T10:00:00Z", ""}) {
    auto changed = body;
    changed.replace(changed.find(epoch), epoch.size(), date);
    EXPECT_EQ(outcomeOf<ProcessSample>(changed), Outcome(Refusal{Kind::dataCorrupted, "startedAt"}))
        << date;
  }
}

TEST(HelperCodingTests, WritesNothingThatIsNotUTF8) {
  try {
    HelperCoding::makeEncoder().encode(KillResult{.succeeded = true, .message = "a\xFF"});
    FAIL();
  } catch (const EncodingError& error) {
    EXPECT_EQ(error.kind(), EncodingError::Kind::invalidValue);
    EXPECT_STREQ(error.what(), "message is not valid UTF-8");
  }
}

TEST(UUIDTests, ReadsExactlyTheTextForm) {
  EXPECT_EQ(UUID::parse(lowerUUID)->string(), upperUUID);
  for (const std::string& text :
       {""s, "0F8FAD5B-D9CB-469F-A165-70867728950"s, "{" + upperUUID + "}",
        "0F8FAD5BD9CB469FA16570867728950E"s, "0F8FAD5B-D9CB-469F-A165-70867728950G"s,
        "0F8FAD5B-D9CB-469F-A16-570867728950E"s, "0F8FAD5B-D9CB-469FAA165-70867728950E"s,
        "0F8FAD5B-D9CB-469F-A165-70867728950\0"s}) {
    EXPECT_FALSE(UUID::parse(text)) << text;
  }
  const auto one = UUID::random();
  EXPECT_NE(one, UUID::random());
  EXPECT_EQ(UUID::parse(one.string()), one);
  EXPECT_EQ(one.string()[14], '4');
  EXPECT_NE("89AB"s.find(one.string()[19]), std::string::npos);
}

}  // namespace
}  // namespace tessaloom
