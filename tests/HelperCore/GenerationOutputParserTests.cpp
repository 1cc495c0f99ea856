#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "HelperCore/GenerationOutputParser.h"
#include "HelperProtocol/HelperCoding.h"

namespace tessaloom {
namespace {

constexpr auto claude = GenerationEngineID::claudeCode;
constexpr auto codex = GenerationEngineID::codex;
constexpr auto freeText = GenerationShape::freeText;
constexpr auto itemFields = GenerationShape::itemFields;

std::string described(const GenerationErrorPayload& failure) {
  std::string text(wireValue(failure.kind));
  if (failure.exitCode) text += " " + std::to_string(*failure.exitCode);
  return text + ": " + failure.detail.value_or("(none)");
}

std::string described(const GenerationOutputParser::Result& result) {
  if (!result) return described(result.error());
  std::string text = result->text;
  if (result->fields) text += " " + HelperCoding::makeEncoder().encode(*result->fields);
  if (result->tokens)
    text += " " + std::to_string(result->tokens->input) + "/" +
            std::to_string(result->tokens->output) + "/" +
            std::to_string(result->tokens->cachedInput);
  return text;
}

GenerationOutputParser::Result parse(std::string_view output, GenerationShape shape,
                                     GenerationEngineID engine) {
  const auto result = engine == codex ? GenerationOutputParser::parseCodex(output, shape, engine)
                                      : GenerationOutputParser::parseClaude(output, shape, engine);
  if (!result) {
    EXPECT_EQ(result.error().engine, engine);
  }
  return result;
}

std::string recording(const std::string& name) {
  std::ifstream file(TESSALOOM_RECORDINGS "/" + name, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  EXPECT_FALSE(content.str().empty()) << name;
  return content.str();
}

struct Row {
  const char* name;
  std::string output;
  GenerationShape shape;
  std::string expected;
};

void expectRows(GenerationEngineID engine, const std::vector<Row>& rows) {
  for (const Row& row : rows)
    EXPECT_EQ(described(parse(row.output, row.shape, engine)), row.expected) << row.name;
}

const std::string noContent = "malformedOutput: The command returned no usable content.";
const std::string noMatch =
    "malformedOutput: The command's structured output didn't match the expected fields.";
const std::string unreadable =
    "malformedOutput: The command's structured output could not be read.";

TEST(GenerationOutputParser, ReadsWhatTheEnginesPrinted) {
  const std::string fields =
      R"({"itemDescription":"Keepsdocs tidy.","tags":["docs","style"],"globs":["**/*.md"],"alwaysApply":false})";
  expectRows(claude,
             {{"free text", recording("claude-free-text.json"), freeText,
               "Hello from the loopback model. 11/7/5"},
              {"item fields", recording("claude-item-fields.json"), itemFields,
               R"({"alwaysApply":false,"globs":["**/*.md"],"itemDescription":)"
               "\"Keeps\\tdocs \u202etidy.\""
               R"(,"tags":["docs","style"]} )" +
                   fields + " 11/7/5"},
              {"not signed in, had it exited with 0", recording("claude-not-signed-in.exit1.json"),
               freeText, "notAuthenticated: Not logged in · Please run /login"}});
  expectRows(
      codex,
      {{"free text", recording("codex-free-text.jsonl"), freeText,
        "Hello from the loopback model. 21/9/4"},
       {"item fields", recording("codex-item-fields.jsonl"), itemFields,
        R"({"itemDescription": "Keeps\tdocs \u202etidy.", "tags": ["docs", "style"], )"
        R"("globs": ["**/*.md"], "alwaysApply": false} )" +
            fields + " 21/9/4"},
       {"unauthorized", recording("codex-unauthorized.exit1.jsonl"), freeText,
        "notAuthenticated: unexpected status 401 Unauthorized: invalid x-api-key, url: "
        "http://127.0.0.1:8089/v1/responses"},
       {"reconnecting", recording("codex-reconnecting.killed.jsonl"), freeText,
        "nonZeroExit: Reconnecting... 5/5 (stream disconnected before completion: failed to lookup "
        "address information: Try again)"}});
}

TEST(GenerationOutputParser, ParsesClaude) {
  const std::string noOutput = "malformedOutput: The command produced no output.";
  const std::string notJSON = "malformedOutput: The command's output was not valid JSON.";
  const std::string content = R"("structured_output":{"content":"x"})";
  const std::string fields = R"({"itemDescription":"d","tags":[],"globs":[],"alwaysApply":true})";
  const std::string deep = std::string(200'000, '[') + std::string(200'000, ']');
  expectRows(
      claude,
      {{"nothing", "", freeText, noOutput},
       {"white space", " \r\n\t\u00a0\u2028\n", freeText, noOutput},
       {"no JSON", "Error", freeText, notJSON},
       {"array", "[{}]", freeText, notJSON},
       {"two values", "{}{}", freeText, notJSON},
       {"too deep", R"({"a":)" + deep + "}", freeText, notJSON},
       {"Unicode space around", "\u3000{" + content + "}\u2029", freeText, "x"},
       {"is_error", R"({"is_error":true,"result":"Overloaded\nnow",)" + content + "}", freeText,
        "nonZeroExit: Overloadednow"},
       {"is_error with a marker", R"({"is_error":true,"result":"INVALID API KEY · fix it"})",
        freeText, "notAuthenticated: INVALID API KEY · fix it"},
       {"is_error without result", R"({"is_error":true})", freeText,
        "nonZeroExit: The command reported an error."},
       {"is_error with a result of another type", R"({"is_error":true,"result":401})", freeText,
        "nonZeroExit: The command reported an error."},
       {"is_error as a string", R"({"is_error":"true",)" + content + "}", freeText, "x"},
       {"is_error as a number", R"({"is_error":1,)" + content + "}", freeText, "x"},
       {"api error number", R"({"api_error_status":529,)" + content + "}", freeText,
        "nonZeroExit: The command reported an error."},
       {"api error false", R"({"api_error_status":false,"result":"r"})", freeText,
        "nonZeroExit: r"},
       {"api error null", R"({"api_error_status":null,)" + content + "}", freeText, "x"},
       {"result is no content", R"({"result":"x"})", freeText, noContent},
       {"content of another type", R"({"structured_output":{"content":1}})", freeText, noContent},
       {"structured string", R"({"structured_output":"x"})", freeText, noContent},
       {"blank content", R"({"structured_output":{"content":" \n\u2003"}})", freeText, noContent},
       {"fenced content", R"({"structured_output":{"content":" ```md\n# A\n``` "}})", freeText,
        "# A"},
       {"fence around nothing", R"({"structured_output":{"content":"```\n```"}})", freeText, ""},
       {"fields", R"({"structured_output":)" + fields + "}", itemFields,
        R"({"alwaysApply":true,"globs":[],"itemDescription":"d","tags":[]} )" + fields},
       {"no fields", R"({"result":"x"})", itemFields,
        "malformedOutput: The command returned no structured output."},
       {"null fields", R"({"structured_output":null})", itemFields, unreadable},
       {"string fields", R"({"structured_output":"x"})", itemFields, unreadable},
       {"array fields", R"({"structured_output":[]})", itemFields, noMatch},
       {"boolean as a number",
        R"({"structured_output":{"itemDescription":"","tags":[],"globs":[],"alwaysApply":1}})",
        itemFields, noMatch},
       {"13 tags",
        R"({"structured_output":{"itemDescription":"","globs":[],"alwaysApply":false,)"
        R"("tags":["","","","","","","","","","","","",""]}})",
        itemFields, noMatch}});
}

TEST(GenerationOutputParser, CountsTokens) {
  const std::vector<std::pair<std::string, std::int64_t>> counts{{"7", 7},
                                                                 {"7.0", 7},
                                                                 {"70e-1", 7},
                                                                 {"-7", 0},
                                                                 {"5.7", 0},
                                                                 {"true", 0},
                                                                 {"\"7\"", 0},
                                                                 {"null", 0},
                                                                 {"9223372036854775807", INT64_MAX},
                                                                 {"1e300", 0},
                                                                 {"9223372036854775808", 0},
                                                                 {"18446744073709551615", 0},
                                                                 {"-9223372036854775808", 0}};
  for (const auto& [number, expected] : counts) {
    const auto parsed =
        parse(R"({"usage":{"input_tokens":)" + number + R"(},"structured_output":{"content":"x"}})",
              freeText, claude);
    ASSERT_TRUE(parsed && parsed->tokens) << number;
    EXPECT_EQ(*parsed->tokens, (GenerationTokens{.input = expected})) << number;
  }
  expectRows(claude, {{"usage of another type",
                       R"({"usage":[],"structured_output":{"content":"x"}})", freeText, "x"}});
}

TEST(GenerationOutputParser, ParsesCodex) {
  const auto message = [](const std::string& text) {
    return R"({"type":"item.completed","item":{"type":"agent_message","text":)" +
           nlohmann::json(text).dump() + "}}\n";
  };
  const std::string answer = message(R"({"content":"x"})");
  const std::string noMessage = "malformedOutput: The command returned no message.";
  const std::string notJSON =
      "malformedOutput: The command's structured output was not valid JSON.";
  expectRows(
      codex,
      {{"nothing", "", freeText, noMessage},
       {"blank message", message(" \n\u00a0"), freeText, noMessage},
       {"last message", message(R"({"content":"y"})") + answer, freeText, "x"},
       {"last message blank", answer + message(" "), freeText, noMessage},
       {"other items",
        answer + R"({"type":"item.completed","item":{"type":"reasoning","text":"no"}})"
                 "\n"
                 R"({"type":"item.started","item":{"type":"agent_message","text":"no"}})"
                 "\n"
                 R"({"type":"item.completed","item":{"type":"agent_message","text":1}})"
                 "\n"
                 R"({"type":"item.completed","item":["agent_message"]})"
                 "\n",
        freeText, "x"},
       {"noise between the lines",
        "warning\n\n[1]\n\"{}\"\n{\n{}{}\n\u00a0" + message("no") + "{\"type\":1}\n" + answer +
            "{\"type\":",
        freeText, "x"},
       {"spaces and CR around a line", " \t" + answer.substr(0, answer.size() - 1) + " \r\n",
        freeText, "x"},
       {"other line separators do not split", message("no") + "\u2028" + answer + "\v" + answer,
        freeText, noContent},
       {"usage of the last turn",
        answer + R"({"type":"turn.completed","usage":{"input_tokens":1,"output_tokens":2}})"
                 "\n"
                 R"({"type":"turn.completed","usage":{"input_tokens":3,"cached_input_tokens":-4}})"
                 "\n"
                 R"({"type":"turn.completed"})",
        freeText, "x 3/0/0"},
       {"failure after the message",
        answer + R"({"type":"turn.failed","error":{"message":"quota"},"message":"outer"})",
        freeText, "nonZeroExit: quota"},
       {"failure before the message",
        R"({"type":"error","message":"Please sign in: Credentials expired"})"
        "\n" +
            answer,
        freeText, "notAuthenticated: Please sign in: Credentials expired"},
       {"last failure, inner message of another type",
        R"({"type":"error","message":"first"})"
        "\n"
        R"({"type":"error","error":{"message":1},"message":"second"})",
        freeText, "nonZeroExit: second"},
       {"failure without a text",
        R"({"type":"turn.failed","error":"e"})"
        "\n" +
            answer,
        freeText, "x"},
       {"empty failure text", answer + R"({"type":"error","message":""})", freeText,
        "nonZeroExit: "},
       {"message is no JSON", message("x"), freeText, noContent},
       {"message is an array", message("[]"), freeText, noContent},
       {"blank content", message(R"({"content":" "})"), freeText, noContent},
       {"padded message", message("\u00a0\n{\"content\":\" x \"}\n"), freeText, "x"},
       {"fields are no JSON", message("{"), itemFields, notJSON},
       {"fields are a bare string", message("\"x\""), itemFields, notJSON},
       {"fields are null", message("null"), itemFields, notJSON},
       {"fields are an array", message("[]"), itemFields, noMatch},
       {"a field is missing", message(R"({"itemDescription":"","tags":[],"globs":[]})"), itemFields,
        noMatch}});
}

TEST(GenerationOutputParser, ClassifiesFailures) {
  struct Case {
    std::string diagnostic;
    GenerationEngineID engine;
    std::string expected;
  };
  const auto refused = [](const std::string& name) {
    return "nonZeroExit 3: This version of " + name +
           " didn't accept the options Tessaloom uses. Update it, or choose another engine.";
  };
  const std::vector<Case> cases{
      {recording("claude-old-version.exit1.stderr"), claude, refused("claude")},
      {"error: UNEXPECTED ARGUMENT '--json' found", codex, refused("codex")},
      {"Unrecognized subcommand", claude, refused("claude")},
      {"unknown option; not authenticated", claude,
       "notAuthenticated 3: unknown option; not authenticated"},
      {"request 1401 failed", codex, "notAuthenticated 3: request 1401 failed"},
      {"two\nlines\u200b", codex, "nonZeroExit 3: twolines"},
      {"", claude, "nonZeroExit 3: "},
      {std::string(2'000, 'y'), claude, "nonZeroExit 3: " + std::string(500, 'y')}};
  for (const Case& row : cases)
    EXPECT_EQ(described(GenerationOutputParser::classifyFailure(3, row.diagnostic, row.engine)),
              row.expected);
}

TEST(GenerationOutputParser, FindsAuthenticationMarkersInAnyCase) {
  for (const char* text : {"Not Logged In", "run x/LOGIN", "NOT AUTHENTICATED", "Invalid API Key",
                           "Unauthorized", "E401", "no Credentials", "Invalid API \u212aey"})
    EXPECT_TRUE(GenerationOutputParser::looksUnauthenticated(text)) << text;
  for (const char* text :
       {"", "not logged  in", "unauthorised", "40 1", "credential", "UNAUTHOR\u0130ZED"})
    EXPECT_FALSE(GenerationOutputParser::looksUnauthenticated(text)) << text;
}

TEST(GenerationOutputParser, StripsCodeFences) {
  struct Case {
    std::string text, expected;
  };
  const std::vector<Case> cases{{"  plain \n", "plain"},
                                {"```json\n{}\n```", "{}"},
                                {"\u2003```\r\n a\r\n```\n", "a"},
                                {"```\na\n```\nb\n```", "a\n```\nb"},
                                {"```\na````", "a`"},
                                {"``````", "``````"},
                                {"```\n```", ""},
                                {"```\n`````", "``"},
                                {"```x```", "```x```"},
                                {"```a`b\nc\n```", "```a`b\nc\n```"},
                                {"````\nc\n````", "````\nc\n````"},
                                {"```\nc\n``", "```\nc\n``"},
                                {"x\n```\nc\n```", "x\n```\nc\n```"},
                                {"```\rc\r```", "```\rc\r```"},
                                {"```\n\n \n```", ""}};
  for (const Case& row : cases)
    EXPECT_EQ(GenerationOutputParser::stripCodeFence(row.text), row.expected) << row.text;
}

// Four MiB is what the runner keeps of an output; whatever it holds costs linear time and memory.
TEST(GenerationOutputParser, BearsLargeOutputs) {
  constexpr std::size_t size = 4'194'304;
  const auto filled = [](const std::string& head, const std::string& piece,
                         const std::string& tail) {
    std::string text = head;
    while (text.size() + piece.size() + tail.size() <= size) text += piece;
    return text + tail;
  };
  const std::string message =
      R"({"type":"item.completed","item":{"type":"agent_message","text":"{\"content\":\"x\"}"}})"
      "\n";
  for (const std::string& piece : {std::string("{\n"), std::string("{}\n"), message})
    EXPECT_EQ(described(parse(filled("", piece, message), freeText, codex)), "x") << piece;
  EXPECT_EQ(described(parse(message + filled("", "[", ""), freeText, codex)), "x");
  EXPECT_EQ(described(parse(filled("", "[", ""), freeText, claude)),
            "malformedOutput: The command's output was not valid JSON.");
}

}  // namespace
}  // namespace tessaloom
