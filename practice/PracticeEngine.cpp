// The practice engine: replaces both real engines in the demo, the tests and the benchmarks.
//
// Install it (a copy or a link) as `claude` and as `codex` in one of the search locations; the base
// name of argv[0] decides which engine it is. It checks everything that it was given against values
// of its own: the argument vector, the environment, the working directory, the layout of standard
// input and, for codex, the schema file. On a mismatch it prints "practice engine: unexpected ..."
// to standard error and exits with 64. Otherwise it answers in that engine's real format, with a
// text made from the first line of the task. `--version` prints what the real ones print.
//
// It misbehaves on request, by words in the task, carried out in their order before the answer:
//
//   practice:sleep=MS           waits
//   practice:hang               waits for ten minutes
//   practice:ignore-term        ignores SIGTERM from here on
//   practice:leave-on-term      moves to its parent's group on SIGTERM and goes on
//   practice:touch=PATH         creates PATH: an event that a test can wait for
//   practice:wait-for=PATH      waits until PATH exists, at most a minute (then exits with 65)
//   practice:flood=BYTES        fills standard output with lines of x
//   practice:flood-err=BYTES    the same on standard error
//   practice:stderr=TEXT        one line on standard error; each _ becomes a space
//   practice:long-stderr=CHARS  CHARS characters (not bytes) on standard error: abcdéfgh...z, again
//   practice:grandchild=MS      leaves a child in its group that keeps both outputs open
//   practice:tracer             leaves one that ignores SIGTERM and, as a debugger does, keeps the
//                               engine's exit from the helper (Linux only)
//   practice:invalid-utf8       puts ill-formed bytes (FF, E2 82) into the answer
//   practice:garbage            answers with what is not JSON
//   practice:no-output          answers nothing
//   practice:not-signed-in      answers as an engine without an account, and exits with 1
//   practice:exit=N             exits with N after the answer
//   practice:signal=N           dies by signal N after the answer
//
// Words of the same form in the file .practice-version of the home directory apply to `--version`.
//
// For tests of the runner: `practice-engine practice WORD...` (under any name) checks nothing and
// carries out the same words, without their prefix, and then reads standard input to its end:
//
//   no-read        never reads standard input
//   echo-stdin     copies standard input to standard output
//   print-env      the environment, one NAME=VALUE a line, sorted
//   print-fds      the open descriptors, one a line
//   print-file=PATH  the content of PATH
//   print-cwd      the working directory

#include <fcntl.h>
#include <signal.h>
#ifdef __linux__
#include <sys/prctl.h>
#include <sys/ptrace.h>
#endif
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

extern char** environ;

namespace {

using Json = nlohmann::ordered_json;
using namespace std::string_literals;
using namespace std::string_view_literals;

constexpr int usageStatus = 64;
constexpr int waitedTooLongStatus = 65;

constexpr std::string_view rules =
    "You are a text generation service inside a document editor. You return only the requested "
    "artifact and nothing else.\n\nNever explain what you are doing or about to do. Never describe "
    "your tools, your environment, or what you can and cannot access. Never add an introduction, a "
    "preamble, or a closing summary of what you changed. Never wrap the entire response in a code "
    "fence. Never address the user.\n\nOutput the artifact itself, starting with its first "
    "character.";

constexpr std::string_view freeTextSchema =
    R"({"type":"object","properties":{"content":{"type":"string","description":"The requested text itself and nothing else — no preamble, no explanation of what you did, no surrounding code fence, no closing commentary"}},"required":["content"],"additionalProperties":false})";

constexpr std::string_view itemFieldsSchema =
    R"({"type":"object","properties":{"itemDescription":{"type":"string","description":"One plain-text sentence describing what this item does — no markdown, no headings, no quotes"},"tags":{"type":"array","items":{"type":"string"},"description":"A few short, lowercase topic tags"},"globs":{"type":"array","items":{"type":"string"},"description":"File globs this applies to, e.g. **/*.swift; empty if it applies broadly"},"alwaysApply":{"type":"boolean","description":"True only if it should apply to every request regardless of which files are in context"}},"required":["itemDescription","tags","globs","alwaysApply"],"additionalProperties":false})";

enum class Engine { claude, codex, none };

/// What the words have asked for so far, and what the answer is made from.
struct Session {
  Engine engine = Engine::none;
  bool itemFields = false;
  std::string task;
  std::optional<std::string> answer;  ///< Instead of the engine's own.
  bool invalidUTF8 = false;
  bool readsInput = false;  ///< Whether standard input is read to its end before exiting.
  int exitStatus = 0;
  int deathSignal = 0;
};

// Input and output

void writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
}

void print(std::string_view bytes) {
  writeAll(STDOUT_FILENO, bytes);
}
void complain(std::string_view bytes) {
  writeAll(STDERR_FILENO, bytes);
}

[[noreturn]] void unexpected(const std::string& what) {
  complain("practice engine: unexpected " + what + "\n");
  ::_exit(usageStatus);
}

/// What is left to read, each chunk handed to `use`.
template <class Use>
void readAll(int fd, Use use) {
  std::vector<char> chunk(1 << 16);
  for (;;) {
    const ssize_t count = ::read(fd, chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;
    use(std::string_view(chunk.data(), static_cast<std::size_t>(count)));
  }
}

std::optional<std::string> fileContent(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string content;
  readAll(fd, [&content](std::string_view chunk) { content += chunk; });
  ::close(fd);
  return content;
}

void sleepFor(long milliseconds) {
  timespec rest{milliseconds / 1000, (milliseconds % 1000) * 1'000'000};
  while (::nanosleep(&rest, &rest) != 0 && errno == EINTR) {
  }
}

void flood(int fd, long bytes) {
  const std::string line(63, 'x');
  std::string block;
  while (block.size() < (1 << 16)) block += line + "\n";
  for (auto left = static_cast<std::size_t>(bytes); left > 0;) {
    const std::size_t count = std::min(left, block.size());
    // The last piece ends a line, whatever the number of bytes.
    writeAll(fd, std::string_view(block).substr(block.size() - count));
    left -= count;
  }
}

// The words

long number(std::string_view value) {
  long result = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), result);
  if (error != std::errc() || end != value.data() + value.size() || result < 0)
    unexpected("number \"" + std::string(value) + "\"");
  return result;
}

std::string longText(long characters) {
  std::string text;
  for (long i = 0; i < characters; ++i) {
    const char letter = static_cast<char>('a' + i % 26);
    if (letter == 'e')
      text += "é";
    else
      text += letter;
  }
  return text;
}

void touch(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) unexpected("failure to create " + path);
  ::close(fd);
}

void waitFor(const std::string& path) {
  for (int tries = 0; tries < 12'000; ++tries) {
    struct stat facts;
    if (::stat(path.c_str(), &facts) == 0) return;
    sleepFor(5);
  }
  complain("practice engine: waited too long for " + path + "\n");
  ::_exit(waitedTooLongStatus);
}

void leaveGrandchild(long milliseconds) {
  const pid_t child = ::fork();
  if (child < 0) unexpected("failure of fork");
  if (child > 0) return;
  ::close(STDIN_FILENO);
  sleepFor(milliseconds);
  ::_exit(0);
}

#ifdef __linux__
void leaveTracer() {
  const pid_t own = ::getpid();
  ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
  int traced[2];
  if (::pipe(traced) != 0) unexpected("failure of pipe");
  const pid_t child = ::fork();
  if (child == 0) {
    ::signal(SIGTERM, SIG_IGN);
    if (::ptrace(PTRACE_SEIZE, own, nullptr, nullptr) != 0) ::_exit(1);
    writeAll(traced[1], "y");
    sleepFor(600'000);
    ::_exit(0);
  }
  ::close(traced[1]);
  char byte;
  if (child < 0 || ::read(traced[0], &byte, 1) != 1) unexpected("failure to be traced");
}
#endif

void answerAsNotSignedIn(Session& session) {
  session.exitStatus = 1;
  if (session.engine == Engine::codex) {
    const std::string message =
        "unexpected status 401 Unauthorized: invalid x-api-key, url: "
        "http://127.0.0.1:8089/v1/responses";
    session.answer =
        Json{{"type", "thread.started"}, {"thread_id", "01a1fd8c-31b9-7400-b630-53fb29295191"}}
            .dump() +
        "\n" + Json::object({{"type", "turn.started"}}).dump() + "\n" +
        Json{{"type", "error"}, {"message", message}}.dump() + "\n" +
        Json{{"type", "turn.failed"}, {"error", {{"message", message}}}}.dump() + "\n";
    return;
  }
  session.answer = Json{{"type", "result"},
                        {"subtype", "success"},
                        {"is_error", true},
                        {"api_error_status", nullptr},
                        {"result", "Not logged in · Please run /login"},
                        {"usage", {{"input_tokens", 0}, {"output_tokens", 0}}}}
                       .dump() +
                   "\n";
}

void printEnvironment() {
  std::vector<std::string> entries;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
    entries.emplace_back(*entry);
  std::sort(entries.begin(), entries.end());
  for (const std::string& entry : entries) print(entry + "\n");
}

void printDescriptors() {
  for (int fd = 0; fd < 4096; ++fd)
    if (::fcntl(fd, F_GETFD) != -1) print(std::to_string(fd) + "\n");
}

std::string workingDirectory() {
  char path[PATH_MAX];
  return ::getcwd(path, sizeof path) != nullptr ? path : "";
}

struct Word {
  std::string_view name;
  bool forRunnerOnly;
  void (*carryOut)(Session&, std::string_view value);
};

constexpr Word words[] = {
    {"sleep", false, [](Session&, std::string_view value) { sleepFor(number(value)); }},
    {"hang", false, [](Session&, std::string_view) { sleepFor(600'000); }},
    {"ignore-term", false, [](Session&, std::string_view) { ::signal(SIGTERM, SIG_IGN); }},
    {"leave-on-term", false,
     [](Session&, std::string_view) {
       ::signal(SIGTERM, [](int) { ::setpgid(0, ::getpgid(::getppid())); });
     }},
    {"touch", false, [](Session&, std::string_view value) { touch(std::string(value)); }},
    {"wait-for", false, [](Session&, std::string_view value) { waitFor(std::string(value)); }},
    {"flood", false, [](Session&, std::string_view value) { flood(STDOUT_FILENO, number(value)); }},
    {"flood-err", false,
     [](Session&, std::string_view value) { flood(STDERR_FILENO, number(value)); }},
    {"stderr", false,
     [](Session&, std::string_view value) {
       std::string text(value);
       std::replace(text.begin(), text.end(), '_', ' ');
       complain(text + "\n");
     }},
    {"long-stderr", false,
     [](Session&, std::string_view value) { complain(longText(number(value))); }},
    {"grandchild", false, [](Session&, std::string_view value) { leaveGrandchild(number(value)); }},
#ifdef __linux__
    {"tracer", false, [](Session&, std::string_view) { leaveTracer(); }},
#endif
    {"invalid-utf8", false, [](Session& session, std::string_view) { session.invalidUTF8 = true; }},
    {"garbage", false,
     [](Session& session, std::string_view) { session.answer = "This is not {JSON.\n"; }},
    {"no-output", false, [](Session& session, std::string_view) { session.answer = ""; }},
    {"not-signed-in", false,
     [](Session& session, std::string_view) { answerAsNotSignedIn(session); }},
    {"exit", false,
     [](Session& session, std::string_view value) {
       session.exitStatus = static_cast<int>(number(value));
     }},
    {"signal", false,
     [](Session& session, std::string_view value) {
       session.deathSignal = static_cast<int>(number(value));
     }},
    {"no-read", true, [](Session& session, std::string_view) { session.readsInput = false; }},
    {"echo-stdin", true, [](Session&, std::string_view) { readAll(STDIN_FILENO, print); }},
    {"print-env", true, [](Session&, std::string_view) { printEnvironment(); }},
    {"print-fds", true, [](Session&, std::string_view) { printDescriptors(); }},
    {"print-file", true,
     [](Session&, std::string_view value) {
       print(fileContent(std::string(value)).value_or("unreadable\n"));
     }},
    {"print-cwd", true, [](Session&, std::string_view) { print(workingDirectory() + "\n"); }},
};

void carryOut(Session& session, std::string_view text) {
  const std::size_t equals = text.find('=');
  const std::string_view name = text.substr(0, equals);
  const std::string_view value =
      equals == std::string_view::npos ? std::string_view() : text.substr(equals + 1);
  for (const Word& word : words) {
    if (word.name != name || (word.forRunnerOnly && session.engine != Engine::none)) continue;
    word.carryOut(session, value);
    return;
  }
  unexpected("word \"" + std::string(text) + "\"");
}

void carryOutWordsIn(Session& session, const std::string& text) {
  constexpr std::string_view prefix = "practice:";
  std::istringstream stream(text);
  for (std::string word; stream >> word;)
    if (word.starts_with(prefix)) carryOut(session, std::string_view(word).substr(prefix.size()));
}

[[noreturn]] void leave(const Session& session) {
  if (session.deathSignal != 0) {
    const rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    ::signal(session.deathSignal, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);  // Macros elsewhere, so without a scope.
    sigaddset(&set, session.deathSignal);
    ::sigprocmask(SIG_UNBLOCK, &set, nullptr);
    ::kill(::getpid(), session.deathSignal);
    sleepFor(60'000);
  }
  ::_exit(session.exitStatus);
}

// The checks

using Variables = std::map<std::string, std::string, std::less<>>;

Variables environment() {
  Variables variables;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string text = *entry;
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos ||
        !variables.emplace(text.substr(0, equals), text.substr(equals + 1)).second)
      unexpected("environment entry \"" + text + "\"");
  }
  return variables;
}

void checkEnvironment(const Variables& variables) {
  constexpr std::string_view names[] = {"HOME",  "LANG", "LC_ALL", "LOGNAME", "PATH",
                                        "SHELL", "TERM", "TMPDIR", "USER"};
  std::string found;
  for (const auto& [name, value] : variables) found += name + " ";
  std::string expected;
  for (const std::string_view name : names) expected += std::string(name) + " ";
  if (found != expected) unexpected("set of variables: " + found);

  const std::string& home = variables.at("HOME");
  if (!home.starts_with('/') || (home.size() > 1 && home.ends_with('/')))
    unexpected("HOME " + home);
  const std::string base = home == "/" ? "" : home;
  const Variables values{
      {"PATH", base + "/.local/bin:" + base +
                   "/.claude/local:/opt/homebrew/bin:/usr/local/bin:/usr/bin:/bin:" + base +
                   "/.bun/bin:" + base + "/.npm-global/bin:" + base + "/.cargo/bin"},
      {"LOGNAME", variables.at("USER")},
      {"SHELL", "/bin/zsh"},
      {"TERM", "dumb"},
      {"LANG", "en_US.UTF-8"},
      {"LC_ALL", "en_US.UTF-8"}};
  for (const auto& [name, value] : values)
    if (variables.at(name) != value) unexpected(name + " " + variables.at(name));
  if (variables.at("USER").empty()) unexpected("empty USER");
  if (!variables.at("TMPDIR").starts_with('/')) unexpected("TMPDIR " + variables.at("TMPDIR"));
}

/// A generation runs in a directory of its own, which is also its temporary directory.
void checkDirectory(const std::string& temporaryDirectory) {
  constexpr std::string_view prefix = "tessaloom-generation-";
  const std::string name = temporaryDirectory.substr(temporaryDirectory.rfind('/') + 1);
  if (!name.starts_with(prefix) || name.size() != prefix.size() + 36 ||
      name.find_first_not_of("0123456789ABCDEF-", prefix.size()) != std::string::npos)
    unexpected("TMPDIR " + temporaryDirectory);
  struct stat facts;
  if (::stat(temporaryDirectory.c_str(), &facts) != 0 || !S_ISDIR(facts.st_mode) ||
      (facts.st_mode & 07777) != 0700 || facts.st_uid != ::getuid())
    unexpected("temporary directory " + temporaryDirectory);
  char resolved[PATH_MAX];
  if (::realpath(temporaryDirectory.c_str(), resolved) == nullptr || workingDirectory() != resolved)
    unexpected("working directory " + workingDirectory());
}

bool isItemFields(const std::string& schema) {
  if (schema != freeTextSchema && schema != itemFieldsSchema) unexpected("schema " + schema);
  return schema == itemFieldsSchema;
}

/// Compares element by element.
void checkArguments(const std::vector<std::string>& given,
                    const std::vector<std::string_view>& expected) {
  for (std::size_t i = 0; i < std::max(given.size(), expected.size()); ++i) {
    if (i >= given.size()) unexpected("end of the arguments before " + std::string(expected[i]));
    if (i >= expected.size()) unexpected("argument \"" + given[i] + "\" after the last");
    if (given[i] != expected[i])
      unexpected("argument " + std::to_string(i + 1) + " \"" + given[i] + "\"");
  }
}

void checkClaudeArguments(Session& session, const std::vector<std::string>& arguments) {
  const std::string schema = arguments.empty() ? "" : arguments.back();
  checkArguments(arguments,
                 {"--print", "--safe-mode", "--no-session-persistence", "--strict-mcp-config",
                  "--permission-prompts", "none", "--tools", "", "--output-format", "json",
                  "--system-prompt", rules, "--json-schema", schema});
  session.itemFields = isItemFields(schema);
}

void checkCodexArguments(Session& session, const std::vector<std::string>& arguments,
                         const std::string& temporaryDirectory) {
  const std::string schemaFile = temporaryDirectory + "/schema.json";
  std::vector<std::string_view> expected{"exec",
                                         "--ephemeral",
                                         "--skip-git-repo-check",
                                         "--ignore-user-config",
                                         "--ignore-rules",
                                         "-s",
                                         "read-only",
                                         "--color",
                                         "never",
                                         "--json"};
  // The schema is left out only when its file could not be written.
  const bool hasSchema = arguments.size() > 11;
  if (hasSchema) expected.insert(expected.end(), {"--output-schema", schemaFile});
  expected.push_back("-");
  checkArguments(arguments, expected);
  if (!hasSchema) return;
  const std::optional<std::string> schema = fileContent(schemaFile);
  if (!schema) unexpected("absence of " + schemaFile);
  session.itemFields = isItemFields(*schema);
}

/// The task: what follows the rules and the instructions, if any.
std::string checkInput(const std::string& input) {
  const std::string head = "OUTPUT RULES\n" + std::string(rules) + "\n\n";
  if (!input.starts_with(head)) unexpected("start of the input: " + input.substr(0, 600));
  const std::string_view rest = std::string_view(input).substr(head.size());
  constexpr std::string_view task = "TASK\n";
  if (rest.starts_with(task)) return std::string(rest.substr(task.size()));
  constexpr std::string_view instructions = "SYSTEM INSTRUCTIONS\n";
  if (!rest.starts_with(instructions))
    unexpected("block in the input: " + std::string(rest.substr(0, 100)));
  const std::size_t end = rest.find("\n\nTASK\n");
  if (end == std::string_view::npos) unexpected("absence of a task");
  const std::string_view text = rest.substr(instructions.size(), end - instructions.size());
  constexpr std::string_view space = " \t\r\n";
  if (text.empty() || space.contains(text.front()) || space.contains(text.back()))
    unexpected("white space around the instructions");
  return std::string(rest.substr(end + 2 + task.size()));
}

// The answers

Json composedAnswer(const Session& session) {
  const std::string firstLine = session.task.substr(0, session.task.find('\n'));
  if (!session.itemFields)
    return Json::object(
        {{"content", "A practice answer to “" + firstLine + "”, written without a model."}});
  Json tags = Json::array();
  std::istringstream stream(firstLine);
  for (std::string word; stream >> word && tags.size() < 3;)
    if (word.size() > 3 &&
        word.find_first_not_of("abcdefghijklmnopqrstuvwxyz") == std::string::npos)
      tags.push_back(word);
  return {{"itemDescription", "Helps with “" + firstLine + "” in a practice session."},
          {"tags", std::move(tags)},
          {"globs", {"**/*.md", "docs/**"}},
          {"alwaysApply", false}};
}

std::string claudeAnswer(const Session& session) {
  const Json answer = composedAnswer(session);
  return Json{{"duration_api_ms", 57},
              {"stop_reason", "tool_use"},
              {"session_id", "30221b15-3348-4759-ae13-865738659607"},
              {"total_cost_usd", 0.000185},
              {"usage",
               {{"input_tokens", 11},
                {"cache_creation_input_tokens", 0},
                {"cache_read_input_tokens", 5},
                {"output_tokens", 7},
                {"service_tier", "standard"}}},
              {"permission_denials", Json::array()},
              {"is_error", false},
              {"num_turns", 2},
              {"subtype", "success"},
              {"api_error_status", nullptr},
              {"result", answer.dump()},
              {"structured_output", answer},
              {"type", "result"},
              {"duration_ms", 134},
              {"uuid", "6781b075-9ed1-451c-8fc7-5b485666ff58"}}
             .dump() +
         "\n";
}

std::string codexAnswer(const Session& session) {
  const Json events[] = {
      {{"type", "thread.started"}, {"thread_id", "01a1fd8b-1c5c-7ae2-8552-aabb9846cf77"}},
      {{"type", "item.completed"},
       {"item",
        {{"id", "item_0"},
         {"type", "error"},
         {"message",
          "Model metadata for `practice` not found. Defaulting to fallback metadata."}}}},
      Json::object({{"type", "turn.started"}}),
      {{"type", "item.completed"},
       {"item",
        {{"id", "item_1"}, {"type", "agent_message"}, {"text", composedAnswer(session).dump()}}}},
      {{"type", "turn.completed"},
       {"usage",
        {{"input_tokens", 21},
         {"cached_input_tokens", 4},
         {"cache_write_input_tokens", 0},
         {"output_tokens", 9},
         {"reasoning_output_tokens", 0}}}}};
  std::string lines;
  for (const Json& event : events) lines += event.dump() + "\n";
  return lines;
}

std::string answerOf(const Session& session) {
  std::string answer = session.answer                     ? *session.answer
                       : session.engine == Engine::claude ? claudeAnswer(session)
                                                          : codexAnswer(session);
  // The last place: in claude's answer the structured one, not its copy in the result text.
  if (const std::size_t place = answer.rfind("practice");
      session.invalidUTF8 && place != std::string::npos)
    answer.insert(place, "\xff\xe2\x82");
  return answer;
}

// The three ways to run

[[noreturn]] void runForRunner(const std::vector<std::string>& arguments) {
  Session session;
  session.readsInput = true;
  for (std::size_t i = 1; i < arguments.size(); ++i) carryOut(session, arguments[i]);
  if (session.answer) print(*session.answer);
  if (session.invalidUTF8) print("a\xff\xe2\x82z\n");
  if (session.readsInput) readAll(STDIN_FILENO, [](std::string_view) {});
  leave(session);
}

[[noreturn]] void runVersion(Session& session) {
  const Variables variables = environment();
  if (!variables.empty()) {  // It is empty for a user that the system does not know.
    checkEnvironment(variables);
    if (const auto text = fileContent(variables.at("HOME") + "/.practice-version"))
      carryOutWordsIn(session, *text);
  }
  print(session.answer                     ? *session.answer
        : session.engine == Engine::claude ? "2.1.329 (Claude Code)\n"
                                           : "codex-cli 0.169.0\n");
  leave(session);
}

[[noreturn]] void runGeneration(Session& session, const std::vector<std::string>& arguments) {
  const Variables variables = environment();
  checkEnvironment(variables);
  checkDirectory(variables.at("TMPDIR"));
  if (session.engine == Engine::claude)
    checkClaudeArguments(session, arguments);
  else
    checkCodexArguments(session, arguments, variables.at("TMPDIR"));
  std::string input;
  readAll(STDIN_FILENO, [&input](std::string_view chunk) { input += chunk; });
  session.task = checkInput(input);
  carryOutWordsIn(session, session.task);
  print(answerOf(session));
  leave(session);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (!arguments.empty() && arguments[0] == "practice") runForRunner(arguments);

  const std::string path = argv[0];
  const std::string name = path.substr(path.rfind('/') + 1);
  Session session;
  if (name == "claude") session.engine = Engine::claude;
  if (name == "codex") session.engine = Engine::codex;
  if (session.engine == Engine::none)
    unexpected("name " + name + "; install it as claude or codex");
  if (arguments == std::vector{"--version"s}) runVersion(session);
  runGeneration(session, arguments);
}
