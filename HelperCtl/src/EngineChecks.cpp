#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <ranges>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

#include "CallCommands.h"
#include "Client.h"
#include "DoctorChecks.h"
#include "EngineProbe.h"
#include "HelperCore/BinaryAllowlist.h"
#include "HelperCore/CLIInvocationBuilder.h"
#include "HelperProtocol/EngineStatus.h"
#include "HelperProtocol/HelperCoding.h"
#include "HelperProtocol/Methods.h"

namespace tessaloom {
namespace {

using Console::safeLine;
using Console::shellWord;
using enum Check::Outcome;

bool isBelow(const std::filesystem::path& file, const std::filesystem::path& directory) {
  std::error_code error;
  const auto target = std::filesystem::weakly_canonical(file, error).string();
  return target.starts_with(std::filesystem::weakly_canonical(directory, error).string() + "/");
}

/// What to do about the last file of the engine's name in the search locations that was rejected;
/// empty if none was.
std::string adviceForRejected(std::string_view name, const CurrentUser& user) {
  using enum BinaryRejection::Kind;
  const auto locations = BinaryAllowlist::searchLocations(user.homeDirectory);
  for (const auto& location : std::views::reverse(locations)) {
    const auto candidate =
        BinaryAllowlist::resolve(name, {location}, ::getuid(), BinaryAllowlist::readFacts);
    if (candidate || candidate.error().kind == notFound) continue;
    const auto file = location / name;
    const std::string path = shellWord(file.string());
    struct stat facts{};
    (void)::stat(file.c_str(), &facts);
    if (candidate.error().kind == wrongOwner) {
      // A file outside the home directory may serve other users, too, who all accept root's.
      return isBelow(file, user.homeDirectory)
                 ? "Make it your own: sudo chown " + user.loginName + " " + path
                 : "Make it root's: sudo chown root " + path;
    }
    if (candidate.error().kind == writableByGroupOrOther) {
      return std::string("Remove write permission for others: ") +
             (facts.st_uid == ::getuid() ? "" : "sudo ") + "chmod go-w " + path;
    }
    return (S_ISDIR(facts.st_mode) ? "It is a directory; remove or rename it: "
                                   : "Make it an executable file, or remove it: ") +
           path;
  }
  return {};
}

/// Where this person's shell finds a program.
std::optional<std::filesystem::path> foundInPath(const std::string& name) {
  const char* variable = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): one thread.
  std::istringstream directories(variable == nullptr ? "" : variable);
  for (std::string directory; std::getline(directories, directory, ':');) {
    auto candidate = std::filesystem::path(directory) / name;
    struct stat facts{};
    if (directory.starts_with('/') && ::stat(candidate.c_str(), &facts) == 0 &&
        S_ISREG(facts.st_mode) && ::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return std::nullopt;
}

std::string howToLink(const std::filesystem::path& program) {
  return "mkdir -p ~/.local/bin && ln -sf " + shellWord(program.string()) + " ~/.local/bin/";
}

/// The command that installs the engine, or updates it.
std::string howToInstall(GenerationEngineID engine) {
  return std::string("npm install -g ") +
         (engine == GenerationEngineID::codex ? "@openai/codex" : "@anthropic-ai/claude-code") +
         "@latest";
}

/// The oldest version that knows all options that the helper uses.
using Version = std::array<unsigned, 3>;
constexpr Version minimumVersion(GenerationEngineID engine) {
  return engine == GenerationEngineID::codex ? Version{0, 169, 0} : Version{2, 1, 329};
}

std::string text(const Version& version) {
  return std::to_string(version[0]) + "." + std::to_string(version[1]) + "." +
         std::to_string(version[2]);
}

/// The first three numbers that points join.
std::optional<Version> versionIn(std::string_view line) {
  constexpr std::string_view digits = "0123456789";
  while (!line.empty()) {
    Version version{};
    std::string_view rest = line;
    std::size_t count = 0;
    while (count < version.size() && (count == 0 || rest.starts_with('.'))) {
      if (count > 0) rest.remove_prefix(1);
      const auto [end, error] =
          std::from_chars(rest.data(), rest.data() + rest.size(), version[count]);
      if (error != std::errc()) break;
      rest = std::string_view(end, rest.data() + rest.size());
      ++count;
    }
    if (count == version.size()) return version;
    // None begins in the middle of a number.
    line.remove_prefix(std::clamp<std::size_t>(line.find_first_not_of(digits), 1, line.size()));
  }
  return std::nullopt;
}

struct EngineCheck {
  Check check;
  bool isUsable;
};

/// An engine that the helper does not find, and why, as this program sees it.
Check checkMissingEngine(GenerationEngineID engine, const std::optional<CurrentUser>& user) {
  const std::string subject(wireValue(engine));
  const std::string name(executableName(engine));
  const auto executable = resolveEngine(engine, user);
  if (executable) {
    return {notice, subject,
            safeLine(executable->string()) + " is here, but the helper does not find it",
            "The helper may run with another home directory or in a container."};
  }
  Check check{notice, subject, safeLine(executable.error().detail.value_or("not usable"))};
  if (!user) return check;
  check.remedy = adviceForRejected(name, *user);
  if (!check.remedy.empty()) return check;
  check.remedy = "To use it: " + howToInstall(engine) + ", or put it into ~/.local/bin";
  if (const auto program = foundInPath(name)) {
    check.finding = safeLine(program->string()) + " is not in a directory that the helper searches";
    check.remedy = "Link it into one: " + howToLink(*program);
  }
  return check;
}

/// What to do about an engine that does not start or report its version.
std::string adviceForProbe(const std::filesystem::path& executable, const CurrentUser& user) {
  const std::string interpreter = interpreterOf(executable);
  if (interpreter.ends_with('\r')) return "Save it with lines that end in LF alone.";
  const std::string name = std::filesystem::path(interpreter).filename().string();
  const auto locations = BinaryAllowlist::searchLocations(user.homeDirectory);
  const bool isReachable =
      interpreter.empty() || std::ranges::any_of(locations, [&](const auto& l) {
        return ::access((l / interpreter).c_str(), X_OK) == 0;
      });
  if (isReachable) {
    return "Run `" + shellWord(executable.string()) + " --version` to see how it responds.";
  }
  if (interpreter.starts_with('/')) return "Install the engine again.";
  const auto program = foundInPath(name);
  return "The engines' PATH has only the directories that the helper searches. " +
         (program ? "Link " + safeLine(name) + " into one: " + howToLink(*program)
                  : "Install " + safeLine(name) + " into one, for example ~/.local/bin");
}

EngineCheck checkFoundEngine(GenerationEngineID engine, const std::optional<CurrentUser>& user,
                             std::string version, bool hasHung = false) {
  Check check{good, std::string(wireValue(engine)), ""};
  const auto executable = resolveEngine(engine, user);
  check.finding = executable ? safeLine(executable->string()) : "found by the helper";
  if (version.empty() && executable && user) {
    // Where the helper's own probe ran into its time limit, another probe would only do so again.
    const EngineProbe probe = hasHung ? hungProbe() : probeEngine(*executable, *user);
    if (!probe.problem.empty()) {
      check.outcome = bad;
      check.finding += " did not report its version: " + probe.problem;
      check.remedy = adviceForProbe(*executable, *user);
      return {check, false};
    }
    version = probe.version;
  }
  check.finding += ", version " + (version.empty() ? "unknown" : safeLine(version));
  const std::string needed = "the helper needs " + text(minimumVersion(engine)) + " or later";
  const auto number = versionIn(version);
  if (!number) {
    check.outcome = notice;
    check.finding += ", which is not known to be recent enough: " + needed;
    return {check, true};
  }
  if (*number >= minimumVersion(engine)) return {check, true};
  check.outcome = bad;
  check.finding += ", is too old: " + needed;
  // Not by the engine's own command: to some of these versions it is a prompt.
  check.remedy = "Update it, for example: " + howToInstall(engine);
  return {check, false};
}

/// Asks the helper about an engine; without a helper, looks for the engine itself.
EngineCheck checkEngine(Transport* transport, GenerationEngineID engine,
                        const std::optional<CurrentUser>& user) {
  const std::string subject(wireValue(engine));
  if (transport == nullptr) {
    if (resolveEngine(engine, user)) return checkFoundEngine(engine, user, "");
    return {checkMissingEngine(engine, user), false};
  }
  const Bytes body = HelperCoding::makeEncoder().encode(EngineStatusRequest{engine});
  const auto start = std::chrono::steady_clock::now();
  const CallReply reply = callAndWait(*transport, methodNamed("GenerationEngineStatus").name, body,
                                      callTimeLimit, Wait::silent);
  const bool hasHung = std::chrono::steady_clock::now() - start >= probeTimeLimit;
  if (!reply) return {failedCall(subject, reply.error()), false};
  const auto status = decodeReply<EngineStatus>(*reply);
  if (!status || status->engine != engine) return {unreadableReply(subject), false};
  if (status->binaryFound) {
    return checkFoundEngine(engine, user, status->version.value_or(""), hasHung);
  }
  return {checkMissingEngine(engine, user), false};
}

}  // namespace

std::vector<Check> checkEngines(Transport* transport, const std::optional<CurrentUser>& user) {
  std::vector<EngineCheck> engines;
  engines.reserve(allGenerationEngineIDs.size());
  for (const GenerationEngineID engine : allGenerationEngineIDs) {
    engines.push_back(checkEngine(transport, engine, user));
  }
  const bool isAnyUsable = std::ranges::any_of(engines, &EngineCheck::isUsable);
  std::vector<Check> checks;
  for (EngineCheck& engine : engines) {
    if (!engine.isUsable) engine.check.outcome = isAnyUsable ? notice : bad;
    checks.push_back(std::move(engine.check));
  }
  return checks;
}

}  // namespace tessaloom
