#include "EngineProbe.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <fstream>
#include <optional>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "Console.h"
#include "HelperCore/CLIInvocationBuilder.h"
#include "HelperCore/PerUserTemporaryDirectory.h"
#include "TLFoundation/ErrnoText.h"
#include "TLFoundation/Pipe.h"
#include "TLFoundation/PointerArray.h"

namespace tessaloom {
namespace {

// Descriptors of this program's own are close-on-exec; macOS also has a flag for all the others.
#ifdef POSIX_SPAWN_CLOEXEC_DEFAULT
constexpr int inheritNothing = POSIX_SPAWN_CLOEXEC_DEFAULT;
#else
constexpr int inheritNothing = 0;
#endif

using Clock = std::chrono::steady_clock;

constexpr std::size_t outputLimit = 64 * 1024;

Pipe openPipe() {
  auto pipe = makePipe();
  if (!pipe) throw std::system_error(pipe.error(), std::generic_category(), "pipe");
  return *std::move(pipe);
}

/// Starts the engine in a process group of its own; the errno on failure.
int start(const std::filesystem::path& executable, const CurrentUser& user, int output, int error,
          pid_t& pid) {
  std::vector<std::string> arguments{executable.string(), "--version"};
  std::vector<std::string> environment;
  for (const auto& [name, value] : CLIInvocationBuilder::environment(
           user.homeDirectory, user.loginName, perUserTemporaryDirectory())) {
    environment.push_back(name + "=" + value);
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, error, STDERR_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, static_cast<short>(POSIX_SPAWN_SETPGROUP | inheritNothing));
  const int result = posix_spawn(&pid, executable.c_str(), &actions, &attributes,
                                 pointerArray(arguments).data(), pointerArray(environment).data());
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return result;
}

/// The child's status once it has exited and what it wrote has been read; nullopt if the time was
/// up first. Processes that it started may keep its streams open.
std::optional<int> await(pid_t pid, std::array<pollfd, 2> streams,
                         std::array<std::string, 2>& texts) {
  constexpr std::chrono::milliseconds step{20};
  const auto deadline = Clock::now() + probeTimeLimit;
  std::optional<int> status;
  while (Clock::now() < deadline) {
    const int ready = poll(streams.data(), streams.size(), static_cast<int>(step.count()));
    for (std::size_t i = 0; ready > 0 && i < streams.size(); ++i) {
      if (streams[i].revents == 0) continue;
      std::array<char, 4096> chunk;
      const ssize_t count = ::read(streams[i].fd, chunk.data(), chunk.size());
      if (count == 0) streams[i].fd = -1;
      if (count > 0 && texts[i].size() < outputLimit) {
        texts[i].append(chunk.data(), static_cast<std::size_t>(count));
      }
    }
    // All that it wrote before it exited is in the pipes by then.
    if (status && ready <= 0) return status;
    int exited = 0;
    if (!status && waitpid(pid, &exited, WNOHANG) == pid) status = exited;
    if (status && streams[0].fd < 0 && streams[1].fd < 0) return status;
  }
  return status;
}

std::string firstLine(std::string_view text) {
  const std::size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) return {};
  return Console::safeLine(text.substr(start, text.find_first_of("\r\n", start) - start));
}

std::string startProblem(int error, const std::filesystem::path& executable) {
  const std::string interpreter = interpreterOf(executable);
  // The file is there, so what is missing is the program that its first line names.
  if (error == ENOENT && !interpreter.empty()) {
    return "the interpreter that it names, " + interpreter + ", is missing";
  }
  return "it cannot be started: " + errnoText(error);
}

std::string endProblem(int status, const std::string& errorText) {
  std::string problem = WIFSIGNALED(status)
                            ? "it was killed by signal " + std::to_string(WTERMSIG(status))
                            : "it exited with status " + std::to_string(WEXITSTATUS(status));
  const std::string line = firstLine(errorText);
  return line.empty() ? problem : problem + ": " + line;
}

}  // namespace

EngineProbe hungProbe() {
  return {"", "it did not exit within " + std::to_string(probeTimeLimit.count()) + " seconds"};
}

EngineProbe probeEngine(const std::filesystem::path& executable, const CurrentUser& user) {
  Pipe output = openPipe();
  Pipe error = openPipe();
  pid_t pid = 0;
  if (const int failure =
          start(executable, user, output.writeEnd.get(), error.writeEnd.get(), pid)) {
    return {"", startProblem(failure, executable)};
  }
  output.writeEnd.reset();
  error.writeEnd.reset();
  std::array<std::string, 2> texts;
  const std::optional<int> status =
      await(pid, {pollfd{output.readEnd.get(), POLLIN, 0}, pollfd{error.readEnd.get(), POLLIN, 0}},
            texts);
  if (!status) {
    (void)::kill(-pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return hungProbe();
  }
  if (*status != 0) return {"", endProblem(*status, texts[1])};
  const std::string version = firstLine(texts[0]);
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
  std::istringstream words(line.substr(0, line.find('\n')));
  std::string interpreter;
  words >> interpreter;
  if (std::filesystem::path(interpreter).filename() != "env") return interpreter;
  for (std::string word; words >> word;) {
    if (!word.starts_with('-') && word.find('=') == std::string::npos) return word;
  }
  return interpreter;
}

}  // namespace tessaloom
