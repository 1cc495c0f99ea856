#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Client.h"
#include "Command.h"
#include "DoctorChecks.h"
#include "EngineProbe.h"
#include "GenerationAdvice.h"
#include "HelperCore/BinaryAllowlist.h"
#include "HelperCore/CurrentUser.h"
#include "HelperCore/PerUserTemporaryDirectory.h"
#include "HelperProtocol/EngineStatus.h"
#include "HelperProtocol/HelperCapabilities.h"
#include "HelperProtocol/HelperCoding.h"
#include "HelperProtocol/Methods.h"
#include "TLFoundation/ErrnoText.h"

namespace tessaloom {
namespace {

using console::safeLine;
using enum Check::Outcome;

Check failedCall(const std::string& subject, const CallError& error) {
  return {bad, subject, safeLine(error.message.empty() ? error.name : error.message), error.advice};
}

Check unreadable(const std::string& subject) {
  return {bad, subject, "the helper's reply could not be read",
          "Install the helper and this program from the same version."};
}

template <class Record>
std::optional<Record> decoded(const CallReply& reply) {
  try {
    return HelperCoding::makeDecoder().decode<Record>(*reply);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

/// How long the first call may take, with the helper's start and its decision about this program.
constexpr std::chrono::seconds firstCallPatience{20};

/// Whether the helper starts, accepts this program and answers. The first call may start it.
Check checkAnswer(Transport& transport) {
  const auto start = std::chrono::steady_clock::now();
  const CallReply reply =
      callAndWait(transport, methodNamed("ProtocolVersion").name, std::nullopt, firstCallPatience);
  if (!reply && reply.error().name == timedOutError) {
    return {bad, "answer", reply.error().message, adviceForSilence()};
  }
  if (!reply) return failedCall("answer", reply.error());
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  return {good, "answer",
          "accepted this program; first reply after " + std::to_string(elapsed.count()) + " ms"};
}

Check checkVersion(Transport& transport) {
  const CallReply reply = callAndWait(transport, methodNamed("HelperCapabilities").name);
  if (!reply) return failedCall("version", reply.error());
  const auto capabilities = decoded<HelperCapabilities>(reply);
  if (!capabilities) return unreadable("version");
  const std::string version = safeLine(capabilities->helperVersion);
  if (version == TESSALOOM_VERSION) return {good, "version", version};
  return {notice, "version", "the helper is " + version + ", this program " TESSALOOM_VERSION,
          "After an upgrade, let the old helper exit: tessaloom-helperctl freshness"};
}

Check checkUser(const std::optional<CurrentUser>& user) {
  if (!user) {
    return {bad, "user", "the user database does not know user " + std::to_string(getuid()),
            "See: getent passwd " + std::to_string(getuid())};
  }
  return {good, "user",
          safeLine(user->loginName) + ", home " + safeLine(user->homeDirectory.string())};
}

/// Why the helper does not use a directory that is already there, and what to do; empty if it does.
/// It has to be a directory of this user's, of mode 0700.
struct Misuse {
  std::string finding;
  std::string remedy = {};  // NOLINT(readability-redundant-member-init): may be left out.
};

std::optional<Misuse> misuse(const struct stat& facts, const std::string& path) {
  const std::string removal = "Remove it, as root if need be: rm -r " + path;
  if (S_ISLNK(facts.st_mode)) return Misuse{"is a symbolic link", "Remove it: rm " + path};
  if (!S_ISDIR(facts.st_mode)) return Misuse{"is not a directory", removal};
  if (facts.st_uid != geteuid()) return Misuse{"belongs to another user", removal};
  const unsigned mode = facts.st_mode & 07777U;
  if (mode == 0700U) return std::nullopt;
  std::array<char, 8> octal{};
  (void)std::snprintf(octal.data(), octal.size(), "%04o", mode);
  return Misuse{"has mode " + std::string(octal.data()) + " instead of 0700",
                "Set its mode: chmod 0700 " + path};
}

Check checkTemporaryDirectory() {
  const std::filesystem::path place = perUserTemporaryDirectory();
  const std::string path = safeLine(place.string());
  struct stat facts{};
  const bool exists = lstat(place.c_str(), &facts) == 0;
  if (exists) {
    if (const auto problem = misuse(facts, path)) {
      return {bad, "temporary files", path + " " + problem->finding, problem->remedy};
    }
  }
  // The helper makes the directory when it needs it.
  std::string probe = (exists ? place : place.parent_path()).string() + "/tessaloom-doctor-XXXXXX";
  if (mkdtemp(probe.data()) == nullptr) {
    const std::string folder = safeLine(std::filesystem::path(probe).parent_path().string());
    return {bad, "temporary files", folder + ": " + errnoText(errno),
            "Check its permissions and free space: ls -ld " + folder + "; df " + folder};
  }
  rmdir(probe.c_str());
  return {good, "temporary files", path + " is writable"};
}

/// The files of the engine's name in the search locations that were rejected, and what to do.
std::string rejectedCandidates(std::string_view name, const CurrentUser& user) {
  std::string remedies;
  for (const auto& location : BinaryAllowlist::searchLocations(user.homeDirectory)) {
    const auto candidate =
        BinaryAllowlist::resolve(name, {location}, getuid(), BinaryAllowlist::readFacts);
    if (candidate || std::holds_alternative<Rejection::NotFound>(candidate.error())) continue;
    const std::string path = (location / name).string();
    remedies += remedies.empty() ? "" : "; ";
    if (std::holds_alternative<Rejection::WrongOwner>(candidate.error())) {
      remedies += "Make it your own: sudo chown " + user.loginName + " $(readlink -f " + path + ")";
    } else if (std::holds_alternative<Rejection::WritableByGroupOrOther>(candidate.error())) {
      remedies += "Remove write permission for others: chmod go-w $(readlink -f " + path + ")";
    } else {
      remedies += "Make it an executable file, or remove it: " + path;
    }
  }
  return remedies;
}

/// Where this person's shell finds a program.
std::optional<std::filesystem::path> foundInPath(const std::string& name) {
  const char* variable = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): one thread.
  std::istringstream folders(variable == nullptr ? "" : variable);
  for (std::string folder; std::getline(folders, folder, ':');) {
    const auto candidate = std::filesystem::path(folder) / name;
    struct stat facts{};
    if (folder.starts_with('/') && stat(candidate.c_str(), &facts) == 0 && S_ISREG(facts.st_mode) &&
        access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  return std::nullopt;
}

std::string howToLink(const std::filesystem::path& program) {
  return "mkdir -p ~/.local/bin && ln -s " + program.string() + " ~/.local/bin/";
}

std::string howToInstall(GenerationEngineID engine) {
  return std::string("To use it: npm install -g ") +
         (engine == GenerationEngineID::codex ? "@openai/codex" : "@anthropic-ai/claude-code") +
         ", or put it into ~/.local/bin";
}

/// The oldest version that knows all options that the helper uses.
using Version = std::array<int, 3>;
constexpr Version minimumVersion(GenerationEngineID engine) {
  return engine == GenerationEngineID::codex ? Version{0, 169, 0} : Version{2, 1, 329};
}

std::string text(const Version& version) {
  return std::to_string(version[0]) + "." + std::to_string(version[1]) + "." +
         std::to_string(version[2]);
}

/// The first three numbers that points join.
std::optional<Version> versionIn(const std::string& line) {
  static const std::regex pattern(R"((\d{1,6})\.(\d{1,6})\.(\d{1,6}))");
  std::smatch match;
  if (!std::regex_search(line, match, pattern)) return std::nullopt;
  return Version{std::stoi(match[1]), std::stoi(match[2]), std::stoi(match[3])};
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
  check.remedy = rejectedCandidates(name, *user);
  if (!check.remedy.empty()) return check;
  check.remedy = howToInstall(engine);
  if (const auto program = foundInPath(name)) {
    check.finding = safeLine(program->string()) + " is where the helper does not look";
    check.remedy = "Link it to where it does: " + howToLink(*program);
  }
  return check;
}

/// What to do about an engine that does not start or report its version.
std::string adviceForProbe(const std::filesystem::path& executable, const CurrentUser& user) {
  const std::string interpreter = interpreterOf(executable);
  const std::string name = std::filesystem::path(interpreter).filename().string();
  const auto locations = BinaryAllowlist::searchLocations(user.homeDirectory);
  const bool isReachable =
      interpreter.empty() || std::ranges::any_of(locations, [&](const auto& l) {
        return access((l / interpreter).c_str(), X_OK) == 0;
      });
  if (isReachable) {
    return "Run `" + safeLine(executable.string()) + " --version` to see how it responds.";
  }
  if (interpreter.starts_with('/')) return "Install the engine again.";
  const auto program = foundInPath(name);
  return "Engines find programs only where the helper looks for engines. " +
         (program ? "Link " + name + " there: " + howToLink(*program)
                  : "Install " + name + " there, for example in ~/.local/bin");
}

EngineCheck checkFoundEngine(GenerationEngineID engine, const std::optional<CurrentUser>& user,
                             std::string version) {
  Check check{good, std::string(wireValue(engine)), ""};
  const auto executable = resolveEngine(engine, user);
  check.finding = executable ? safeLine(executable->string()) : "found by the helper";
  if (version.empty() && executable) {
    const EngineProbe probe = probeEngine(*executable, *user);
    if (!probe.problem.empty()) {
      check.outcome = bad;
      check.finding += " did not report its version: " + probe.problem;
      check.remedy = safeLine(adviceForProbe(*executable, *user));
      return {check, false};
    }
    version = probe.version;
  }
  check.finding += ", version " + (version.empty() ? "unknown" : safeLine(version));
  const auto number = versionIn(version);
  if (!number || *number >= minimumVersion(engine)) return {check, true};
  check.outcome = bad;
  check.finding += ", is too old: the helper needs " + text(minimumVersion(engine)) + " or later";
  check.remedy = std::string("Update it: ") + std::string(executableName(engine)) + " update";
  return {check, false};
}

/// Asks the helper about an engine or, where there is none to ask, looks itself.
EngineCheck checkEngine(Transport* transport, GenerationEngineID engine,
                        const std::optional<CurrentUser>& user) {
  const std::string subject(wireValue(engine));
  if (transport == nullptr) {
    if (resolveEngine(engine, user)) return checkFoundEngine(engine, user, "");
    return {checkMissingEngine(engine, user), false};
  }
  const Bytes body = HelperCoding::makeEncoder().encode(EngineStatusRequest{engine});
  const CallReply reply = callAndWait(*transport, methodNamed("GenerationEngineStatus").name, body);
  if (!reply) return {failedCall(subject, reply.error()), false};
  const auto status = decoded<EngineStatus>(reply);
  if (!status) return {unreadable(subject), false};
  if (status->binaryFound) return checkFoundEngine(engine, user, status->version.value_or(""));
  return {checkMissingEngine(engine, user), false};
}

/// One engine that can be used is enough: then what is wrong with another is only worth a note.
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

std::vector<Check> allChecks() {
  std::vector<Check> checks = checkWayToHelper();
  const bool wayIsOpen =
      std::ranges::none_of(checks, [](const Check& c) { return c.outcome == bad; });
  auto transport = openTransport();
  bool answers = false;
  if (wayIsOpen && transport) {
    checks.push_back(checkAnswer(**transport));
    answers = checks.back().outcome == good;
    if (answers) checks.push_back(checkVersion(**transport));
  }
  const auto user = lookUpCurrentUser();
  checks.push_back(checkUser(user));
  checks.push_back(checkTemporaryDirectory());
  const auto engines = checkEngines(answers ? transport->get() : nullptr, user);
  checks.insert(checks.end(), engines.begin(), engines.end());
  return checks;
}

std::string_view word(Check::Outcome outcome) {
  switch (outcome) {
    case good:
      return "ok";
    case notice:
      return "note";
    case bad:
      return "bad";
  }
  return "";
}

void show(const Check& check) {
  const auto style = check.outcome == good     ? console::Style::good
                     : check.outcome == notice ? console::Style::bold
                                               : console::Style::bad;
  std::string mark(word(check.outcome));
  mark.resize(6, ' ');
  std::string subject = check.subject;
  subject.resize(std::max<std::size_t>(17, subject.size() + 1), ' ');
  console::print(console::styledForOutput(style, mark) + subject + check.finding + "\n");
  if (!check.remedy.empty()) console::print(std::string(23, ' ') + check.remedy + "\n");
}

nlohmann::ordered_json asJSON(const std::vector<Check>& checks) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const Check& check : checks) {
    nlohmann::ordered_json object{
        {"outcome", word(check.outcome)}, {"subject", check.subject}, {"finding", check.finding}};
    if (!check.remedy.empty()) object["remedy"] = check.remedy;
    list.push_back(object);
  }
  return list;
}

}  // namespace

CommandResult runDoctor(const Arguments& arguments) {
  const std::vector<Check> checks = allChecks();
  const bool isSound =
      std::ranges::none_of(checks, [](const Check& c) { return c.outcome == bad; });
  if (arguments.has(jsonOption.name)) {
    console::printJSON(
        asJSON(checks).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  } else {
    for (const Check& check : checks) show(check);
    console::print(
        isSound ? "\nText can be generated, if the engine is signed in: that shows only when it is "
                  "used.\n"
                : "\nText cannot be generated until the problems marked \"bad\" are fixed.\n");
  }
  return isSound ? ExitStatus::done : ExitStatus::refused;
}

}  // namespace tessaloom
