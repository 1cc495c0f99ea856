#include <chrono>
#include <cmath>
#include <cstdint>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <utility>
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
#include "support/Repeated.h"
#include "support/Thrown.h"

using namespace std::string_literals;

namespace tessaloom {
namespace {

const std::string upperUUID = "0F8FAD5B-D9CB-469F-A165-70867728950E";
const std::string lowerUUID = "0f8fad5b-d9cb-469f-a165-70867728950e";

const UUID someUUID = UUID::parse(upperUUID).value();

Instant instant(double seconds) {
  return Instant(std::chrono::duration<double>(seconds));
}

template <class Record>
std::string encode(const Record& record) {
  return HelperCoding::makeEncoder().encode(record);
}

template <class Record>
Record decode(const std::string& body) {
  return HelperCoding::makeDecoder().decode<Record>(body);
}

template <class Record>
void expectWire(const Record& record, const std::string& body) {
  EXPECT_EQ(encode(record), body);
  const auto read = decode<Record>(body);
  EXPECT_EQ(read, record) << body;
  if constexpr (HashableRecord<Record>) {
    EXPECT_EQ(std::hash<Record>{}(read), record.hash());
  }
}

// The examples of the protocol's documentation are held against the coding too; these are what they
// do not show.
TEST(HelperCodingTests, WritesMembersInDeclaredOrderAndReadsThemBack) {
  using enum GenerationEngineID;
  expectWire(HelperFreshness(false, true), R"({"isOutdated":false,"willExit":false})");
  expectWire(GenerationRequest(someUUID, claudeCode, GenerationShape::itemFields, "a\"\\/",
                               "\u00E9\n\r\t\U0001F600", GenerationTimeout(5)),
             R"({"requestID":"0F8FAD5B-D9CB-469F-A165-70867728950E","engine":"claudeCode",)"
             R"("shape":"itemFields","instructions":"a\"\\/",)"
             "\"prompt\":\"\u00E9\\n\\r\\t\U0001F600\",\"timeout\":5}");
  expectWire(GenerationResult{.requestID = someUUID,
                              .engine = codex,
                              .text = "x",
                              .fields = GeneratedFields("d", {"t", "u"}, {"g"}, true),
                              .tokens = GenerationTokens{1, -2, INT64_MAX},
                              .durationMilliseconds = INT64_MIN},
             R"({"requestID":"0F8FAD5B-D9CB-469F-A165-70867728950E","engine":"codex","text":"x",)"
             R"("fields":{"itemDescription":"d","tags":["t","u"],"globs":["g"],)"
             R"("alwaysApply":true},"tokens":{"input":1,"output":-2,)"
             R"("cachedInput":9223372036854775807},"durationMilliseconds":-9223372036854775808})");
  expectWire(GenerationResult{someUUID, codex, "a", std::nullopt, std::nullopt, 0},
             R"({"requestID":"0F8FAD5B-D9CB-469F-A165-70867728950E","engine":"codex","text":"a",)"
             R"("durationMilliseconds":0})");
  expectWire(GenerationErrorPayload{GenerationFailureKind::nonZeroExit, codex, -1, "no"},
             R"({"kind":"nonZeroExit","engine":"codex","exitCode":-1,"detail":"no"})");
  expectWire(EngineStatus{codex, true, false, "0.169.0"},
             R"({"engine":"codex","binaryFound":true,"authenticated":false,"version":"0.169.0"})");
  expectWire(KillRequest{ProcessID(INT32_MAX), Signal::kill}, R"({"pid":2147483647,"signal":9})");
  expectWire(KillResult{false, ""}, R"({"succeeded":false,"message":""})");
  expectWire(std::vector<ProcessSample>{}, "[]");
  expectWire(std::vector<ProcessSample>{{-1, 0, std::nullopt, instant(0), -5, 4096, "sh"},
                                        {2, 1, "pts/0", instant(1'795'255'200), 1, 0, ""}},
             R"([{"pid":-1,"parentPID":0,"startedAt":"1970-01-01T00:00:00Z","elapsedSeconds":-5,)"
             R"("residentBytes":4096,"command":"sh"},{"pid":2,"parentPID":1,"tty":"pts/0",)"
             R"("startedAt":"2026-11-21T10:00:00Z","elapsedSeconds":1,"residentBytes":0,)"
             R"("command":""}])");
  for (const std::string kind : {"binaryNotFound", "notAuthenticated", "launchFailed", "timedOut",
                                 "cancelled", "nonZeroExit", "malformedOutput", "engineRefused"}) {
    const auto body = R"({"kind":")" + kind + R"(","engine":"codex"})";
    EXPECT_EQ(encode(decode<GenerationErrorPayload>(body)), body);
  }
}

TEST(HelperCodingTests, EscapesEveryControl) {
  std::string text;
  for (char c = 0; c < 0x20; ++c) text += c;
  const auto body = encode(KillResult{true, text + "\x7F\u2028"});
  EXPECT_EQ(body.substr(0, body.find("\\u0010")),
            R"({"succeeded":true,"message":"\u0000\u0001\u0002\u0003\u0004\u0005\u0006\u0007)"
            R"(\b\t\n\u000b\f\r\u000e\u000f)");
  EXPECT_EQ(decode<KillResult>(body).message, text + "\x7F\u2028");
}

TEST(HelperCodingTests, ReadsWhatAnotherWriterMayWrite) {
  EXPECT_EQ(decode<KillRequest>("\n{ \"signal\" : 2.0e0 , \"unknown\":[{}], \"pid\":1.0 }\t"),
            (KillRequest{.pid = ProcessID(1), .signal = Signal::interrupt}));
  EXPECT_EQ(decode<KillResult>(R"({"succeeded":true,"message":null})").message, std::nullopt);
  EXPECT_EQ(decode<GenerationCancelRequest>(R"({"requestID":")" + lowerUUID + R"("})").requestID,
            someUUID);
  EXPECT_TRUE(decode<HelperFreshness>(R"({"isOutdated":false,"willExit":true})").willExit());
  EXPECT_EQ(decode<HelperCapabilities>(R"({"names":["b","a","b"],"helperVersion":""})").names,
            (std::set<std::string>{"a", "b"}));
}

/// The words with which the body is refused; empty when it is not.
template <class Record>
std::string refusalOf(const std::string& body) {
  const auto error = thrownBy<std::runtime_error>([&] { decode<Record>(body); });
  return error ? error->what() : "";
}

// The documentation's refused bodies show which code comes with which words.
TEST(HelperCodingTests, TellsWhereABodyIsWrong) {
  struct Row {
    std::string (*refusalOf)(const std::string& body);
    const char* body;
    const char* expected;
  };
  constexpr auto kill = refusalOf<KillRequest>;
  constexpr auto ports = refusalOf<std::vector<PortSample>>;
  const std::string manyTags = R"({"itemDescription":"","globs":[],"alwaysApply":true,"tags":[)" +
                               repeated("\"\",", 1'000) + "\"\"]}";
  const std::vector<Row> rows{
      {kill, "",
       "The message body is not valid JSON at byte 1: unexpected end of input; expected '[', '{', "
       "or a literal"},
      {kill, "null", "The message body is not an object"},
      {kill, R"({"pid":null,"signal":3})", "pid is missing"},
      {kill, R"({"pid":true,"signal":9})", "pid is not an integer"},
      {kill, R"({"pid":5.5,"signal":9})", "pid is not an integer"},
      {kill, R"({"pid":2147483648,"signal":9})", "pid is out of range"},
      {kill, R"({"pid":-2147483649,"signal":9})", "pid is out of range"},
      {kill, R"({"pid":18446744073709551617,"signal":9})", "pid is out of range"},
      {kill, R"({"pid":0,"signal":3})", "pid: 0 is not a valid process ID."},
      {kill, R"({"pid":-2147483648,"signal":9})", "pid: -2147483648 is not a valid process ID."},
      {ports, "{}", "The message body is not an array"},
      {ports, "[null]", "[0] is not an object"},
      {ports, R"([{"port":1,"transport":"tcp","pid":2,"processName":"","address":""},{"port":1}])",
       "[1].transport is missing"},
      {refusalOf<HelperFreshness>, R"({"isOutdated":false})", "willExit is missing"},
      {refusalOf<HelperFreshness>, R"({"isOutdated":0,"willExit":true})",
       "isOutdated is not true or false"},
      {refusalOf<GenerationResult>,
       R"({"requestID":"0F8FAD5B-D9CB-469F-A165-70867728950E","engine":"codex","text":"",)"
       R"("fields":{"itemDescription":"","tags":["a",1],"globs":[],"alwaysApply":1}})",
       "fields.tags[1] is not a string"},
      // The entries are read before they are counted, and counted even where they are not kept.
      {refusalOf<GeneratedFields>, R"({"itemDescription":"","tags":[0,0,0,0,0,0,0,0,0,0,0,0,0]})",
       "tags[0] is not a string"},
      {refusalOf<GeneratedFields>, manyTags.c_str(),
       "The list has 1001 entries, more than the 12 allowed."},
  };
  for (const auto& row : rows) EXPECT_EQ(row.refusalOf(row.body), row.expected) << row.body;

  const DecodingError hostile(DecodingError::Kind::dataCorrupted, "a\n\xFF", std::string(600, 'x'));
  EXPECT_EQ(hostile.what(), "a\uFFFD " + std::string(497, 'x'));
}

TEST(HelperCodingTests, ReadsAGenerationRequestInItsOwnOrder) {
  struct Row {
    std::string instructions, prompt, requestID, engine, shape, timeout, expected;
  };
  const std::string letters(64'000, 'x'), manyLetters(9'000, 'x');
  const std::string control = ": The text has a control character.";
  const auto tooLong = [](const std::string& count, const std::string& limit) {
    return ": The text has " + count + " characters, more than the " + limit + " allowed.";
  };
  const std::vector<Row> rows{
      // Each row mends what the one before was refused for.
      {letters + "\\u0000", "\\u001b", "-", "Codex", "7", "301",
       "instructions" + tooLong("64001", "64000")},
      {manyLetters + "\\u0000", letters + "x", "-", "Codex", "7", "301", "instructions" + control},
      {manyLetters, letters + "\\u001b", "-", "Codex", "7", "301",
       "prompt" + tooLong("64001", "64000")},
      {manyLetters, "\\u001b", "-", "Codex", "7", "301", "prompt" + control},
      {manyLetters, letters, "-", "Codex", "7", "301", "instructions" + tooLong("9000", "8000")},
      {"", "", "-", "Codex", "7", "301", "requestID is not a UUID"},
      {"", "", lowerUUID, "Codex", "7", "301", "engine is not one of claudeCode, codex"},
      {"", "", lowerUUID, "codex", "7", "301", "shape is not a string"},
      {"", "", lowerUUID, "codex", "\"freeText\"", "301",
       "timeout: A timeout of 301 seconds is outside 5 to 300."},
      {"", "", lowerUUID, "codex", "\"freeText\"", "300.0", ""},
  };
  for (const auto& row : rows) {
    // The last that is read comes first.
    const auto body = R"({"timeout":)" + row.timeout + R"(,"shape":)" + row.shape +
                      R"(,"engine":")" + row.engine + R"(","requestID":")" + row.requestID +
                      R"(","prompt":")" + row.prompt + R"(","instructions":")" + row.instructions +
                      "\"}";
    EXPECT_EQ(refusalOf<GenerationRequest>(body), row.expected) << body.substr(0, 120);
  }
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
  const GenerationResult result{someUUID, GenerationEngineID::codex, "", {}, {}, 0};
  auto other = result;
  other.fields = GeneratedFields("", {"a"}, {}, false);
  EXPECT_EQ((std::unordered_set<GenerationResult>{result, result, other}.size()), 2U);
}

ProcessSample startedAt(Instant instant) {
  return {1, 0, std::nullopt, instant, 0, 0, ""};
}

TEST(HelperCodingTests, WritesDatesToTheSecondRoundedDown) {
  const std::pair<double, const char*> rows[] = {
      {1'795'255'200.999, "2026-11-21T10:00:00Z"}, {-0.25, "1969-12-31T23:59:59Z"},
      {951'782'399, "2000-02-28T23:59:59Z"},       {951'782'400, "2000-02-29T00:00:00Z"},
      {-62'167'219'200, "0000-01-01T00:00:00Z"},   {253'402'300'799.5, "9999-12-31T23:59:59Z"},
  };
  for (const auto& [seconds, text] : rows) {
    const auto body = encode(startedAt(instant(seconds)));
    EXPECT_TRUE(body.contains(text)) << body;
    EXPECT_EQ(decode<ProcessSample>(body).startedAt(), instant(std::floor(seconds)));
  }
  for (const double seconds :
       {-62'167'219'200.5, 253'402'300'800.0, double{INFINITY}, double{NAN}}) {
    EXPECT_THROW(encode(startedAt(instant(seconds))), EncodingError);
  }
}

TEST(HelperCodingTests, ReadsDatesWithAnOffsetAndRefusesAnyOtherForm) {
  const std::string body = encode(startedAt(instant(0)));
  const std::string epoch = "1970-01-01T00:00:00Z";
  for (const char* date :
       {"1970-01-01T05:30:00+05:30", "1969-12-31T16:00:00-0800", "1970-01-01T00:00:00-00:00"}) {
    auto changed = body;
    changed.replace(changed.find(epoch), epoch.size(), date);
    EXPECT_EQ(decode<ProcessSample>(changed).startedAt(), instant(0)) << date;
  }
  for (const char* date :
       {"2026-11-21T10:00:00.5Z", "2026-11-21T10:00:00+24:00", "2026-11-21T10:00:00",
        "2026-11-21T10:00:00+01", "2026-11-21T10:00:00-00:60", "2026-11-21T10:00:0000:00",
        "2026-11-21T10:00:00z", "2026-11-21 10:00:00Z", "02026-11-21T10:00:00Z",
        "-026-11-21T10:00:00Z", "2026-11-21T+1:00:00Z", "2026-02-29T10:00:00Z",
        "2026-13-01T10:00:00Z", "2026-01-00T10:00:00Z", "2026-11-21T24:00:00Z",
        "2026-11-21T10:60:00Z", "2026-11-21T23:59:60Z", ""}) {
    auto changed = body;
    changed.replace(changed.find(epoch), epoch.size(), date);
    EXPECT_EQ(refusalOf<ProcessSample>(changed),
              "startedAt is not a date of the form 2026-11-21T10:00:00Z")
        << date;
  }
}

TEST(HelperCodingTests, WritesNothingThatIsNotUTF8) {
  const auto error = thrownBy<EncodingError>([] { encode(KillResult{true, "a\xFF"}); });
  EXPECT_EQ(error.value().kind(), EncodingError::Kind::invalidValue);
  EXPECT_STREQ(error.value().what(), "message is not valid UTF-8");
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
