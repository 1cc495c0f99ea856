#include "EngineProbe.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <string_view>

#include "Console.h"
#include "HelperCore/CLIInvocationBuilder.h"
#include "HelperCore/ChildRun.h"
#include "TLFoundation/ErrnoText.h"

namespace tessaloom {
namespace {

std::string firstLine(std::string_view text) {
  const std::size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) return {};
  return Console::safeLine(text.substr(start, text.find_first_of("\r\n", start) - start));
}

/// The next word of a script's first line, removed from it. The kernel splits at these two
/// characters alone.
std::string_view takeScriptWord(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
  const std::string_view word = line.substr(0, line.find_first_of(" \t"));
  line.remove_prefix(word.size());
  return word;
}

std::string startProblem(int error, const std::filesystem::path& executable) {
  const std::string interpreter = interpreterOf(executable);
  if (interpreter.ends_with('\r')) return "its first line ends in CR LF";
  // The file is there, so what is missing is the program that its first line names.
  if (error == ENOENT && !interpreter.empty()) {
    return "the interpreter that it names, " + Console::safeLine(interpreter) + ", is missing";
  }
  return "it cannot be started: " + errnoText(error);
}

std::string endProblem(const ChildEnd& end, std::string_view errorText) {
  std::string problem = end.wasKilled ? "it was killed by signal " : "it exited with status ";
  problem += std::to_string(end.number);
  const std::string line = firstLine(errorText);
  return line.empty() ? problem : problem + ": " + line;
}

}  // namespace

EngineProbe hungProbe() {
  return {"", "it did not exit within " + std::to_string(probeTimeLimit.count()) + " seconds"};
}

EngineProbe probeEngine(const std::filesystem::path& executable, const CurrentUser& user) {
  const auto invocation = CLIInvocationBuilder::versionProbe(
      executable, CLIInvocationBuilder::environment(user.homeDirectory, user.loginName, "/tmp"));
  auto run = ChildRun::launch(invocation, std::nullopt);
  if (!run) return {"", startProblem(run.error(), executable)};
  if (!run->awaitExit(ChildRun::Clock::now() + probeTimeLimit)) return hungProbe();
  run->awaitReaders();
  if (run->end().number != 0) {
    return {"", endProblem(run->end(), run->standardError().contents())};
  }
  if (!run->standardOutput().finished()) {
    return {"", "a process that it left behind keeps its output open"};
  }
  const std::string version = firstLine(run->standardOutput().contents());
  if (version.empty()) return {"", "it printed nothing"};
  return {version, ""};
}

std::string interpreterOf(const std::filesystem::path& executable) {
  std::ifstream file(executable, std::ios::binary);
  std::string mark(2, '\0');
  if (!file.read(mark.data(), 2) || mark != "#!") return {};
  std::string line(256, '\0');
  file.read(line.data(), static_cast<std::streamsize>(line.size()));
  line.resize(static_cast<std::size_t>(file.gcount()));
  std::string_view words = std::string_view(line).substr(0, line.find('\n'));
  const std::string_view interpreter = takeScriptWord(words);
  if (std::filesystem::path(interpreter).filename() != "env") return std::string(interpreter);
  for (auto word = takeScriptWord(words); !word.empty(); word = takeScriptWord(words)) {
    if (!word.starts_with('-') && !word.contains('=')) return std::string(word);
  }
  return std::string(interpreter);
}

}  // namespace tessaloom
