#include <chrono>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "HelperProtocol/BoundedText.h"
#include "HelperProtocol/CallLoad.h"
#include "HelperProtocol/CodingError.h"
#include "HelperProtocol/EngineStatus.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/GenerationEnums.h"
#include "HelperProtocol/GenerationErrorPayload.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationResult.h"
#include "HelperProtocol/HelperCapabilities.h"
#include "HelperProtocol/HelperCoding.h"
#include "HelperProtocol/HelperDTOError.h"
#include "HelperProtocol/HelperFreshness.h"
#include "HelperProtocol/Methods.h"
#include "HelperProtocol/ProcessMessages.h"
#include "support/Repeated.h"
#include "support/Thrown.h"

using namespace std::string_literals;

namespace tessaloom {
namespace {

const std::string upperUUID = "0F8FAD5B-D9CB-469F-A165-70867728950E";
const std::string lowerUUID = "0f8fad5b-d9cb-469f-a165-70867728950e";

/// The words of the error that `act` throws, or what it returns.
template <class Act>
std::string resultOf(Act act) {
  try {
    return act();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

template <class Record>
std::string encode(const Record& record) {
  return resultOf([&] { return HelperCoding::makeEncoder().encode(record); });
}

/// The body as it is written again once it was read.
template <class Record>
std::string rewrite(const std::string& body) {
  return HelperCoding::makeEncoder().encode(HelperCoding::makeDecoder().decode<Record>(body));
}

/// The same, or the words with which the body is refused.
template <class Record>
std::string recode(const std::string& body) {
  return resultOf([&] { return rewrite<Record>(body); });
}

struct Row {
  std::string (*recode)(const std::string& body);
  std::string body;
  std::string expected;  ///< Empty where it is the same body.
};

void expectEach(const std::vector<Row>& rows) {
  for (const auto& [recode, body, expected] : rows) {
    EXPECT_EQ(recode(body), expected.empty() ? body : expected) << body.substr(0, 200);
  }
}

// The examples of the protocol's documentation are checked against the coding too; these are what
// they do not show.
TEST(HelperCodingTests, WritesWhatItReads) {
  const std::string inID = R"({"requestID":")" + upperUUID + "\"";
  expectEach({
      {recode<HelperCapabilities>, R"({"names":["b","a","b"],"helperVersion":""})",
       R"({"names":["a","b"],"helperVersion":""})"},
      {recode<GenerationRequest>,
       inID + R"(,"engine":"claudeCode","shape":"itemFields","instructions":"a\"\\/",)"
              "\"prompt\":\"\u00E9\\n\\r\\t\U0001F600\",\"timeout\":5}",
       ""},
      {recode<GenerationCancelRequest>, R"({"requestID":")" + lowerUUID + "\"}", inID + "}"},
      {recode<GenerationResult>,
       inID + R"(,"engine":"codex","text":"x","tokens":{"input":1,"output":-2,)"
              R"("cachedInput":9223372036854775807},"durationMilliseconds":-9223372036854775808})",
       ""},
      {recode<GenerationErrorPayload>,
       R"({"kind":"notAuthenticated","engine":"codex","exitCode":-1,"detail":""})", ""},
      {recode<KillRequest>, "\n{ \"signal\" : 2.0e0 , \"unknown\":[{}], \"pid\":1.0 }\t",
       R"({"pid":1,"signal":2})"},
      {recode<KillResult>, R"({"succeeded":true,"message":null})", R"({"succeeded":true})"},
      {recode<KillResult>,
       R"({"succeeded":false,"message":"\u0000\u0001\u0002\u0003\u0004\u0005\u0006\u0007\b\t\n)"
       R"(\u000b\f\r\u000e\u000f\u0010\u001f )"
       "\x7F\u2028\"}",
       ""},
      // Texts are cleaned and cut.
      {recode<ProcessSample>,
       R"({"pid":-1,"parentPID":0,"tty":"\n)" + std::string(33, 't') +
           R"(","startedAt":"1969-12-31T23:59:59Z","elapsedSeconds":-5,"residentBytes":1,)"
           R"("command":")" +
           std::string(300, 'x') + "\"}",
       R"({"pid":-1,"parentPID":0,"tty":")" + std::string(32, 't') +
           R"(","startedAt":"1969-12-31T23:59:59Z","elapsedSeconds":-5,"residentBytes":1,)"
           R"("command":")" +
           std::string(256, 'x') + "\"}"},
      {recode<PortSample>,
       R"({"port":70000,"transport":"transport","pid":-1,"processName":"a\u202e)" +
           std::string(256, 'b') + R"(","address":")" + std::string(70, '1') + "\"}",
       R"({"port":70000,"transport":"transpor","pid":-1,"processName":"a)" + std::string(255, 'b') +
           R"(","address":")" + std::string(64, '1') + "\"}"},
      {recode<GeneratedFields>,
       R"({"itemDescription":"a\n)" + std::string(2'001, 'x') + R"(","tags":["T",")" +
           std::string(65, 't') + R"("],"globs":["","[)" + std::string(257, 'g') +
           R"("],"alwaysApply":true})",
       R"({"itemDescription":"a)" + std::string(1'999, 'x') + R"(","tags":["T",")" +
           std::string(64, 't') + R"("],"globs":["","[)" + std::string(255, 'g') +
           R"("],"alwaysApply":true})"},
  });
}

// The documentation's refused bodies show which code comes with which words.
TEST(HelperCodingTests, ReportsWhereABodyIsWrong) {
  constexpr auto kill = recode<KillRequest>;
  constexpr auto ports = recode<std::vector<PortSample>>;
  constexpr auto fields = recode<GeneratedFields>;
  const auto fieldsWith = [](std::size_t tags, std::size_t globs) {
    return R"({"itemDescription":"","alwaysApply":true,"globs":[")" + repeated("\",\"", globs - 1) +
           R"("],"tags":[")" + repeated("\",\"", tags - 1) + "\"]}";
  };
  expectEach({
      {kill, "null", "The message body is not an object"},
      {kill, R"({"pid":null,"signal":3})", "pid is missing"},
      {kill, R"({"pid":5.5,"signal":9})", "pid is not an integer"},
      {kill, R"({"pid":18446744073709551617,"signal":9})", "pid is out of range"},
      {kill, R"({"pid":-2147483648,"signal":9})", "pid: -2147483648 is not a valid process ID."},
      {ports, "{}", "The message body is not an array"},
      {ports, "[null]", "[0] is not an object"},
      {ports, R"([{"port":1,"transport":"tcp","pid":2,"processName":"","address":""},{"port":1}])",
       "[1].transport is missing"},
      {recode<HelperFreshness>, R"({"isOutdated":0,"willExit":true})",
       "isOutdated is not true or false"},
      {recode<GenerationResult>,
       R"({"requestID":"0F8FAD5B-D9CB-469F-A165-70867728950E","engine":"codex","text":"",)"
       R"("fields":{"itemDescription":"","tags":["a",1],"globs":[],"alwaysApply":1}})",
       "fields.tags[1] is not a string"},
      {recode<GenerationResult>,
       R"({"requestID":"0F8FAD5B-D9CB-469F-A165-70867728950E","engine":"codex","text":"",)"
       R"("fields":{"itemDescription":"","tags":["a"]},"fields":{"itemDescription":""}})",
       "fields.tags is missing"},
      // The entries are read before they are counted, and counted even where they are not kept.
      {fields, R"({"itemDescription":"","tags":[0,0,0,0,0,0,0,0,0,0,0,0,0]})",
       "tags[0] is not a string"},
      {fields, fieldsWith(1'001, 25), "The list has 1001 entries, more than the 12 allowed."},
      {fields, fieldsWith(13, 25), "The list has 13 entries, more than the 12 allowed."},
      {fields, fieldsWith(12, 25), "The list has 25 entries, more than the 24 allowed."},
  });
  // Of the last value of a key.
  EXPECT_TRUE(fields(R"({"tags":["a",0],)" + fieldsWith(12, 24).substr(1)).starts_with("{"));
  EXPECT_TRUE(thrownBy<GenerationDTOError>(
      [] { GeneratedFields("", {}, std::vector<std::string>(25), true); }));
  EXPECT_EQ(encode(KillResult{true, "a\xFF"}), "message is not valid UTF-8");
  const DecodingError hostile(DecodingError::Kind::dataCorrupted, "a\n\xFF", std::string(600, 'x'));
  EXPECT_EQ(hostile.what(), "a\uFFFD " + std::string(497, 'x'));
}

TEST(HelperCodingTests, ReadsAGenerationRequestInItsOwnOrder) {
  struct {
    std::string instructions, prompt, requestID, engine, shape, timeout, expected;
  } rows[] = {
      // Each row mends what the one before was refused for. 64001 and 9000 stand for that many
      // letters.
      {"64001", "\\u001b", "-", "Codex", "7", "301",
       "instructions: The text has 64001 characters, more than the 64000 allowed."},
      {"\\u0000", "64001", "-", "Codex", "7", "301",
       "instructions: The text has a control character."},
      {"8001", "64001", "-", "Codex", "7", "301",
       "prompt: The text has 64001 characters, more than the 64000 allowed."},
      {"8001", "\\u001b", "-", "Codex", "7", "301", "prompt: The text has a control character."},
      {"8001", "64000", "-", "Codex", "7", "301",
       "instructions: The text has 8001 characters, more than the 8000 allowed."},
      {"8000", "64000", "-", "Codex", "7", "301", "requestID is not a UUID"},
      {"", "", upperUUID, "Codex", "7", "301", "engine is not one of claudeCode, codex"},
      {"", "", upperUUID, "codex", "7", "301", "shape is not a string"},
      {"", "", upperUUID, "codex", "\"freeText\"", "9223372036854775807",
       "timeout: A timeout of 9223372036854775807 seconds is outside 5 to 300."},
      {"", "", upperUUID, "codex", "\"freeText\"", "300", ""},
  };
  for (auto& row : rows) {
    for (std::string* text : {&row.instructions, &row.prompt}) {
      if (!text->empty() && text->front() != '\\') *text = std::string(std::stoul(*text), 'x');
    }
    // The last that is read comes first.
    const auto body = R"({"timeout":)" + row.timeout + R"(,"shape":)" + row.shape +
                      R"(,"engine":")" + row.engine + R"(","requestID":")" + row.requestID +
                      R"(","prompt":")" + row.prompt + R"(","instructions":")" + row.instructions +
                      "\"}";
    const std::string said = recode<GenerationRequest>(body);
    EXPECT_EQ(said.starts_with("{") ? "" : said, row.expected);
  }
  EXPECT_EQ(GenerationTimeout().seconds(), 180);
}

ProcessSample startedAt(double seconds) {
  return {1, 0, std::nullopt, Instant(std::chrono::duration<double>(seconds)), 0, 0, ""};
}

TEST(HelperCodingTests, DatesAreToTheSecondRoundedDownAndOfOneForm) {
  const auto dated = [](const std::string& date) {
    return R"({"pid":1,"parentPID":0,"startedAt":")" + date +
           R"(","elapsedSeconds":0,"residentBytes":0,"command":""})";
  };
  const std::string outside = "startedAt is a date outside the years 0 to 9999";
  const std::string noDate = "startedAt is not a date of the form 2026-11-21T10:00:00Z";
  const std::pair<const char*, std::string> rows[] = {
      {"2000-02-29T23:59:59Z", dated("2000-02-29T23:59:59Z")},
      {"1970-01-01T05:30:00+05:29", dated("1970-01-01T00:01:00Z")},
      {"1969-12-31T00:00:00-2359", dated("1969-12-31T23:59:00Z")},
      {"1969-12-31T23:59:59-00:59", dated("1970-01-01T00:58:59Z")},
      {"0000-01-01T00:00:00Z", dated("0000-01-01T00:00:00Z")},
      {"9999-12-31T23:59:59Z", dated("9999-12-31T23:59:59Z")},
      // What could not be written again.
      {"0000-01-01T00:00:59+00:01", noDate},
      {"9999-12-31T23:59:00-00:01", noDate},
  };
  for (const auto& [date, expected] : rows) {
    EXPECT_EQ(recode<ProcessSample>(dated(date)), expected);
  }
  for (const char* date :
       {"2026-11-21T10:00:00.5Z", "2026-11-21T10:00:00+24:00", "2026-11-21T10:00:00",
        "2026-11-21T10:00:00+01", "2026-11-21T10:00:00-00:60", "2026-11-21T10:00:0000:00",
        "2026-11-21T10:00:00z", "2026-11-21 10:00:00Z", "02026-11-21T10:00:00Z",
        "-026-11-21T10:00:00Z", "2026-11-21T+1:00:00Z", "2026-11-21T1::00:00Z",
        "2026-02-29T10:00:00Z", "2026-13-01T10:00:00Z", "2026-01-00T10:00:00Z",
        "2026-11-21T24:00:00Z", "2026-11-21T10:60:00Z", "2026-11-21T23:59:60Z", ""}) {
    EXPECT_EQ(recode<ProcessSample>(dated(date)), noDate) << date;
  }
  EXPECT_EQ(encode(startedAt(-0.25)), dated("1969-12-31T23:59:59Z"));
  EXPECT_EQ(encode(startedAt(253'402'300'799.5)), dated("9999-12-31T23:59:59Z"));
  EXPECT_EQ(encode(startedAt(double{NAN})), outside);
  EXPECT_EQ(encode(startedAt(253'402'300'800.0)), outside);
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
  EXPECT_NE(UUID::random(), UUID::random());
  const std::regex version4("[0-9A-F-]{14}4[0-9A-F]{3}-[89AB][0-9A-F-]{16}");
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(std::regex_match(UUID::random().string(), version4));
}

TEST(BoundedTextTests, ChecksTheLengthAndThenTheControls) {
  const auto tooLong = GenerationDTOError::textTooLong;
  const struct {
    const char* name;
    std::string text;
    std::int64_t limit;
    std::optional<GenerationDTOError> expected;
  } rows[] = {
      {"exactly the limit", "abc", 3, {}},
      {"one more", "abcd", 3, tooLong(3, 4)},
      {"the absolute maximum", std::string(64'001, 'x'), 100'000, tooLong(64'000, 64'001)},
      {"CR LF is one character", repeated("\r\n", 64'000), 64'000, {}},
      {"flags are one character", repeated("\U0001F1E9\U0001F1EA", 9), 8, tooLong(8, 9)},
      {"length wins over controls", std::string(9, '\0'), 8, tooLong(8, 9)},
      {"allowed scalars", "\t\n\r ~\u00A0\u200B\uFFFF\u00C2\u0180", 10, {}},
      {"ill-formed parts are no controls", "\xC2+\xC2\xC2", 10, {}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(thrownBy<GenerationDTOError>([&] { BoundedText(row.text, row.limit); }), row.expected)
        << row.name;
  }
  // Eight bytes are examined together, so each place among them counts.
  for (const auto& control : {"\0"s, "\v"s, "\x1F"s, "\x7F"s, "\u0080"s, "\u009F"s}) {
    for (std::size_t before = 0; before < 17; ++before) {
      const std::string text = std::string(before, '0') + control + std::string(16 - before, '1');
      EXPECT_EQ(thrownBy<GenerationDTOError>([&] { BoundedText(text, 20); }),
                GenerationDTOError::controlCharacters())
          << before;
    }
  }
}

TEST(GenerationEnumsTests, UnknownNamesAreQuotedOnOneLine) {
  const auto offending = "x\n\xFF" + std::string(99, 'y');
  const auto failure = thrownBy<GenerationDTOError>([&] { generationShape(offending); });
  ASSERT_EQ(failure, GenerationDTOError::unknownShape(offending));
  EXPECT_EQ(failure->what(), "Unknown shape \"x\uFFFD" + std::string(62, 'y') + "\".");
}

/// By their names in the documentation.
const std::map<std::string, std::string (*)(const std::string&)>& records() {
  static const std::map<std::string, std::string (*)(const std::string&)> all{
      {"HelperCapabilities", rewrite<HelperCapabilities>},
      {"HelperFreshness", rewrite<HelperFreshness>},
      {"GenerationRequest", rewrite<GenerationRequest>},
      {"GenerationCancelRequest", rewrite<GenerationCancelRequest>},
      {"GenerationResult", rewrite<GenerationResult>},
      {"GeneratedFields", rewrite<GeneratedFields>},
      {"GenerationTokens", rewrite<GenerationTokens>},
      {"GenerationErrorPayload", rewrite<GenerationErrorPayload>},
      {"EngineStatusRequest", rewrite<EngineStatusRequest>},
      {"EngineStatus", rewrite<EngineStatus>},
      {"KillRequest", rewrite<KillRequest>},
      {"KillResult", rewrite<KillResult>},
      {"[ProcessSample]", rewrite<std::vector<ProcessSample>>},
      {"[PortSample]", rewrite<std::vector<PortSample>>},
  };
  return all;
}

/// The groups of every match in the document.
std::vector<std::vector<std::string>> matches(const char* pattern) {
  std::ostringstream text;
  text << std::ifstream(TESSALOOM_DOCS "/protocol.md").rdbuf();
  const std::string document = text.str();
  const std::regex expression(pattern);
  std::vector<std::vector<std::string>> found;
  for (std::sregex_iterator match(document.begin(), document.end(), expression), end; match != end;
       ++match) {
    found.emplace_back(match->begin(), match->end());
  }
  return found;
}

TEST(ProtocolDocument, EveryExampleIsTheRecordThatItShows) {
  std::set<std::string> shown;
  for (const auto& groups : matches("```json (\\S+)\n([^`]+)```")) {
    const std::string& name = groups[1];
    // Written again it is the same, keys in the same order: the examples lack nothing and hold
    // nothing that is ignored.
    using Json = nlohmann::ordered_json;
    EXPECT_EQ(Json::parse(records().at(name)(groups[2])).dump(), Json::parse(groups[2]).dump());
    shown.insert(name);
  }
  EXPECT_EQ(shown.size(), records().size());
}

TEST(ProtocolDocument, ListsEveryMethod) {
  auto listed = matches(
      "\\| `(\\w+)\\((\\w*)\\) → (\\w+)` \\| `([\\w:]+)` \\| `?(\\w*)`? ?\\| ([\\w `]+) \\|");
  ASSERT_EQ(listed.size(), methods.size());
  for (std::size_t row = 0; row < listed.size(); ++row) {
    const Method& method = methods[row];
    const std::string argument = method.takesRequest() ? "ay" : "";
    std::erase(listed[row].back(), '`');
    listed[row].erase(listed[row].begin());
    EXPECT_EQ(listed[row], (std::vector<std::string>{
                               method.name, argument, method.result, method.selector,
                               method.takesRequest() ? method.request : "", method.reply}));
  }
}

template <class Error>
void expectRefusal(const Error& error, const std::vector<std::string>& groups) {
  EXPECT_EQ(std::to_string(static_cast<std::int64_t>(error.kind())), groups[3]) << groups[2];
  EXPECT_EQ(error.what(), groups[4]) << groups[2];
}

TEST(ProtocolDocument, EveryRefusedBodyIsRefusedAsDocumented) {
  const auto rows = matches("\\| `(\\w+)` \\| `([^`]+)` \\| (\\d+) \\| `([^`]+)` \\|");
  EXPECT_GE(rows.size(), 10U);
  for (const auto& groups : rows) {
    try {
      ADD_FAILURE() << groups[2] << " is accepted: " << records().at(groups[1])(groups[2]);
    } catch (const DecodingError& error) {
      expectRefusal(error, groups);
    } catch (const GenerationDTOError& error) {
      expectRefusal(error, groups);
    } catch (const HelperDTOError& error) {
      expectRefusal(error, groups);
    }
  }
}

TEST(CallLoad, AcceptsSoManyCallsOfEachKind) {
  CallLoad load;
  std::vector<std::size_t> accepted(Method::kindCount);
  for (std::size_t kind = 0; kind < accepted.size(); ++kind) {
    const CallWeight call{static_cast<Method::Kind>(kind), CallLoad::maximumBytes / 64};
    for (; load.fits(call); load.add(call)) ++accepted[kind];
  }
  EXPECT_EQ(accepted, (std::vector<std::size_t>{64, 64, 16, 16, 16}));
}

}  // namespace
}  // namespace tessaloom
