#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <tuple>
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

/// The text, fields and counts of tokens of an answer, or its failure.
std::string parsed(std::string_view output, GenerationShape shape, GenerationEngineID engine) {
  const auto result = engine == codex ? GenerationOutputParser::parseCodex(output, shape, engine)
                                      : GenerationOutputParser::parseClaude(output, shape, engine);
  if (!result) {
    EXPECT_EQ(result.error().engine, engine);
    return described(result.error());
  }
  std::string text = result->text;
  if (result->fields) text += " " + HelperCoding::makeEncoder().encode(*result->fields);
  if (const auto& tokens = result->tokens)
    text += " " + std::to_string(tokens->input) + "/" + std::to_string(tokens->output) + "/" +
            std::to_string(tokens->cachedInput);
  return text;
}

struct Row {
  const char* name;
  std::string output, expected;
};

void expectRows(GenerationEngineID engine, GenerationShape shape, const std::vector<Row>& rows) {
  for (const Row& row : rows)
    EXPECT_EQ(parsed(row.output, shape, engine), row.expected) << row.name;
}

std::string recording(const std::string& name) {
  std::ifstream file(TESSALOOM_RECORDINGS "/" + name, std::ios::binary);
  std::string content(std::istreambuf_iterator<char>(file), {});
  EXPECT_FALSE(content.empty()) << name;
  return content;
}

const std::string noContent = "malformedOutput: The command returned no usable content.";
const std::string noMatch =
    "malformedOutput: The command's structured output didn't match the expected fields.";

TEST(GenerationOutputParser, ReadsWhatTheEnginesPrinted) {
  const std::string fields = R"( {"itemDescription":"Keepsdocs tidy.","tags":["docs","style"],)"
                             R"("globs":["**/*.md"],"alwaysApply":false} )";
  const std::tuple<const char*, GenerationEngineID, GenerationShape, std::string> rows[] = {
      {"claude-free-text.json", claude, freeText, "Hello from the loopback model. 11/7/5"},
      {"claude-item-fields.json", claude, itemFields,
       "{\"itemDescription\":\"Keeps\\tdocs \u202etidy.\","
       R"("tags":["docs","style"],"globs":["**/*.md"],"alwaysApply":false})" +
           fields + "11/7/5"},
      {"claude-not-signed-in.exit1.json", claude, freeText,
       "notAuthenticated: Not logged in · Please run /login"},
      {"codex-free-text.jsonl", codex, freeText, "Hello from the loopback model. 21/9/4"},
      {"codex-item-fields.jsonl", codex, itemFields,
       R"({"itemDescription": "Keeps\tdocs \u202etidy.", "tags": ["docs", "style"], )"
       R"("globs": ["**/*.md"], "alwaysApply": false})" +
           fields + "21/9/4"},
      {"codex-unauthorized.exit1.jsonl", codex, freeText,
       "notAuthenticated: unexpected status 401 Unauthorized: invalid x-api-key, url: "
       "http://127.0.0.1:8089/v1/responses"},
      {"codex-reconnecting.killed.jsonl", codex, freeText,
       "nonZeroExit: Reconnecting... 5/5 (stream disconnected before completion: failed to lookup "
       "address information: Try again)"}};
  for (const auto& [name, engine, shape, expected] : rows)
    EXPECT_EQ(parsed(recording(name), shape, engine), expected) << name;
}

TEST(GenerationOutputParser, ParsesClaude) {
  const std::string noOutput = "malformedOutput: The command produced no output.";
  const std::string notJSON = "malformedOutput: The command's output was not valid JSON.";
  const std::string someError = "nonZeroExit: The command reported an error.";
  const std::string unreadable =
      "malformedOutput: The command's structured output could not be read.";
  const auto structured = [](const std::string& value) {
    return R"({"structured_output":)" + value + "}";
  };
  const auto besides = [](const std::string& members) {
    return "{" + members + R"(,"structured_output":{"content":"x"}})";
  };
  expectRows(
      claude, freeText,
      {{"white space", " \r\n\t\u00a0\u2028\n", noOutput},
       {"no JSON", "Error", notJSON},
       {"array", "[{}]", notJSON},
       {"Unicode space around", "\u3000" + structured(R"({"content":"x"})") + "\u2029", "x"},
       {"is_error", besides(R"("is_error":true,"result":"Overloaded\nnow")"),
        "nonZeroExit: Overloadednow"},
       {"is_error with a result of another type", R"({"is_error":true,"result":401})", someError},
       {"is_error as a string", besides(R"("is_error":"true")"), "x"},
       {"api error number", besides(R"("api_error_status":529)"), someError},
       {"api error false", besides(R"("api_error_status":false,"result":"r")"), "nonZeroExit: r"},
       {"api error null", besides(R"("api_error_status":null)"), "x"},
       {"usage of another type", besides(R"("usage":[])"), "x"},
       {"usage",
        besides(R"("usage":{"input_tokens":70e-1,"output_tokens":9223372036854775807,)"
                R"("cache_read_input_tokens":9223372036854775808})"),
        "x 7/9223372036854775807/0"},
       {"usage that counts nothing",
        besides(R"("usage":{"input_tokens":-7,"output_tokens":5.7,"cache_read_input_tokens":"7"})"),
        "x 0/0/0"},
       {"result is not content", R"({"result":"x"})", noContent},
       {"content of another type", structured(R"({"content":1})"), noContent},
       {"blank content", structured(R"({"content":" \n\u2003"})"), noContent},
       {"fenced content", structured(R"({"content":" ```md\n# A\n``` "})"), "# A"},
       {"fence around nothing", structured(R"({"content":"```\n```"})"), ""}});
  expectRows(claude, itemFields,
             {{"no fields", R"({"result":"x"})",
               "malformedOutput: The command returned no structured output."},
              {"null fields", structured("null"), unreadable},
              {"array fields", structured("[]"), noMatch},
              {"13 tags",
               structured(R"({"itemDescription":"","globs":[],"alwaysApply":false,)"
                          R"("tags":["","","","","","","","","","","","",""]})"),
               noMatch}});
}

std::string codexMessage(const std::string& text) {
  return R"({"type":"item.completed","item":{"type":"agent_message","text":)" +
         nlohmann::json(text).dump() + "}}\n";
}

TEST(GenerationOutputParser, ParsesCodex) {
  const std::string answer = codexMessage(R"({"content":"x"})");
  const std::string noMessage = "malformedOutput: The command returned no message.";
  const std::string notJSON =
      "malformedOutput: The command's structured output was not valid JSON.";
  expectRows(
      codex, freeText,
      {{"nothing", "", noMessage},
       {"last message", codexMessage(R"({"content":"y"})") + answer, "x"},
       {"last message blank", answer + codexMessage(" \n\u00a0"), noMessage},
       {"other items", answer + R"({"type":"item.completed","item":{"type":"reasoning","text":"no"}}
                    {"type":"item.started","item":{"type":"agent_message","text":"no"}}
                    {"type":"item.completed","item":{"type":"agent_message","text":1}}
                    {"type":"item.completed","item":["agent_message"]})",
        "x"},
       {"noise between the lines",
        "warning\n\n[1]\n\"{}\"\n{\n{}{}\n\u00a0" + codexMessage("no") + "{\"type\":1}\n" + answer +
            "{\"type\":",
        "x"},
       {"spaces and CR around a line", " \t" + answer.substr(0, answer.size() - 1) + " \r\n", "x"},
       {"other line separators do not split",
        codexMessage("no") + "\u2028" + answer + "\v" + answer, noContent},
       {"usage of the last turn",
        answer + R"({"type":"turn.completed","usage":{"input_tokens":1,"output_tokens":2}}
                    {"type":"turn.completed","usage":{"input_tokens":3,"cached_input_tokens":-4}}
                    {"type":"turn.completed"})",
        "x 3/0/0"},
       {"failure after the message",
        answer + R"({"type":"turn.failed","error":{"message":"quota"},"message":"outer"})",
        "nonZeroExit: quota"},
       {"failure before the message", R"({"type":"error","message":"No Credentials"}
                                      )" + answer,
        "notAuthenticated: No Credentials"},
       {"last failure, inner message of another type",
        R"({"type":"error","message":"first"}
           {"type":"error","error":{"message":1},"message":"second"})",
        "nonZeroExit: second"},
       {"failure without a text", R"({"type":"turn.failed","error":"e"}
                                  )" + answer,
        "x"},
       {"empty failure text", answer + R"({"type":"error","message":""})", "nonZeroExit: "},
       {"message is not JSON", codexMessage("x"), noContent},
       {"padded message", codexMessage("\u00a0\n{\"content\":\" x \"}\n"), "x"}});
  expectRows(codex, itemFields,
             {{"no JSON", codexMessage("{"), notJSON},
              {"bare string", codexMessage("\"x\""), notJSON},
              {"a field is missing", codexMessage(R"({"itemDescription":"","tags":[],"globs":[]})"),
               noMatch}});
}

TEST(GenerationOutputParser, ClassifiesFailures) {
  const auto outdated = [](const std::string& name) {
    return "nonZeroExit 3: This version of " + name +
           " didn't accept the options Tessaloom uses. Update it, or choose another engine.";
  };
  const std::tuple<std::string, GenerationEngineID, std::string> rows[] = {
      {recording("claude-old-version.exit1.stderr"), claude, outdated("claude")},
      {"error: UNEXPECTED ARGUMENT '--json' found", codex, outdated("codex")},
      {"Unrecognized subcommand", claude, outdated("claude")},
      {"unknown option; E401", claude, "notAuthenticated 3: unknown option; E401"},
      {"two\nlines\u200b", codex, "nonZeroExit 3: twolines"},
      {"not logged  in, 40 1, UNAUTHOR\u0130ZED credential", codex,
       "nonZeroExit 3: not logged  in, 40 1, UNAUTHOR\u0130ZED credential"},
      {std::string(2'000, 'y'), claude, "nonZeroExit 3: " + std::string(500, 'y')}};
  for (const auto& [diagnostic, engine, expected] : rows)
    EXPECT_EQ(described(GenerationOutputParser::classifyFailure(3, diagnostic, engine)), expected);
  for (const char* text : {"Not Logged In", "run x/LOGIN", "NOT AUTHENTICATED", "Unauthorized",
                           "E401", "no Credentials", "Invalid API \u212aey"})
    EXPECT_TRUE(GenerationOutputParser::looksUnauthenticated(text)) << text;
}

TEST(GenerationOutputParser, StripsCodeFences) {
  const std::pair<std::string, std::string> rows[] = {
      {"\u2003```\r\n a\r\n```\n", "a"},
      {"```\na\n```\nb\n```", "a\n```\nb"},
      {"```\na````", "a`"},
  };
  for (const auto& [text, expected] : rows)
    EXPECT_EQ(GenerationOutputParser::stripCodeFence(text), expected) << text;
  for (const char* text : {"``````", "```x```", "```a`b\nc\n```", "````\nc\n````", "```\nc\n``",
                           "```", "x\n```\nc\n```", "```\rc\r```"})
    EXPECT_EQ(GenerationOutputParser::stripCodeFence(text), text);
}

}  // namespace
}  // namespace tessaloom
