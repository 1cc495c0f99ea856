#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Checks.h"
#include "Client.h"
#include "Command.h"
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

/// Whether the helper starts, admits this program and answers. The first call may start it.
Check checkAnswer(Transport& transport) {
  const auto start = std::chrono::steady_clock::now();
  const CallReply reply = callAndWait(transport, methodNamed("ProtocolVersion").name);
  if (!reply) return failedCall("answer", reply.error());
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  return {good, "answer",
          "it admits this program; first reply after " + std::to_string(elapsed.count()) + " ms"};
}

Check checkVersion(Transport& transport) {
  const CallReply reply = callAndWait(transport, methodNamed("HelperCapabilities").name);
  if (!reply) return failedCall("version", reply.error());
  const auto capabilities = decoded<HelperCapabilities>(reply);
  if (!capabilities) return unreadable("version");
  const std::string version = safeLine(capabilities->helperVersion);
  if (version == TESSALOOM_VERSION) return {good, "version", version};
  return {notice, "version", "the helper is " + version + ", this program " TESSALOOM_VERSION,
          "After an upgrade let the old helper go: tessaloom-helperctl freshness"};
}

Check checkUser(const std::optional<CurrentUser>& user) {
  if (!user) {
    return {bad, "user", "the user database does not know user " + std::to_string(getuid()),
            "See: getent passwd " + std::to_string(getuid())};
  }
  return {good, "user",
          safeLine(user->loginName) + ", home " + safeLine(user->homeDirectory.string())};
}

/// What keeps the helper from using a directory that is already there; empty when nothing does. It
/// has to be a directory of this user's that nobody else can enter.
std::string misuse(const struct stat& facts) {
  if (!S_ISDIR(facts.st_mode)) return "is not a directory";
  if (facts.st_uid != geteuid()) return "belongs to another user";
  if ((facts.st_mode & 07777U) != 0700U) return "can be entered by others";
  return {};
}

Check checkTemporaryDirectory() {
  const std::filesystem::path place = perUserTemporaryDirectory();
  const std::string path = safeLine(place.string());
  struct stat facts{};
  const bool exists = lstat(place.c_str(), &facts) == 0;
  if (exists && !misuse(facts).empty()) {
    return {bad, "temporary files", path + " " + misuse(facts),
            "Remove it, as root if need be: rm -r " + path};
  }
  // The helper makes the directory when it needs it.
  std::string probe = (exists ? place : place.parent_path()).string() + "/tessaloom-doctor-XXXXXX";
  if (mkdtemp(probe.data()) == nullptr) {
    const std::string folder = safeLine(std::filesystem::path(probe).parent_path().string());
    return {bad, "temporary files", folder + ": " + errnoText(errno),
            "See its permissions and free space: ls -ld " + folder + "; df " + folder};
  }
  rmdir(probe.c_str());
  return {good, "temporary files", path + " can be written"};
}

/// What stands in the search locations under the engine's name and was refused, file by file.
std::string refusedCandidates(std::string_view name, const CurrentUser& user) {
  std::string refused;
  for (const auto& location : BinaryAllowlist::searchLocations(user.homeDirectory)) {
    const auto candidate =
        BinaryAllowlist::resolve(name, {location}, getuid(), BinaryAllowlist::readFacts);
    if (candidate || std::holds_alternative<Rejection::NotFound>(candidate.error())) continue;
    const std::string path = (location / name).string();
    refused += refused.empty() ? "" : "; ";
    if (std::holds_alternative<Rejection::WrongOwner>(candidate.error())) {
      refused += "make it your own: sudo chown " + user.loginName + " $(readlink -f " + path + ")";
    } else if (std::holds_alternative<Rejection::WritableByGroupOrOther>(candidate.error())) {
      refused += "take the right to write from others: chmod go-w $(readlink -f " + path + ")";
    } else {
      refused += "make it an executable file, or remove it: " + path;
    }
  }
  return refused;
}

std::string howToInstall(GenerationEngineID engine) {
  return std::string("To use it: npm install -g ") +
         (engine == GenerationEngineID::codex ? "@openai/codex" : "@anthropic-ai/claude-code") +
         ", or put it into ~/.local/bin.";
}

/// What the helper says about an engine; nothing when it cannot be asked.
std::optional<CallReply> askAboutEngine(Transport* transport, GenerationEngineID engine) {
  if (transport == nullptr) return std::nullopt;
  const Bytes body = HelperCoding::makeEncoder().encode(EngineStatusRequest{engine});
  return callAndWait(*transport, methodNamed("GenerationEngineStatus").name, body);
}

/// An engine that is not there, and why, as this program sees it.
Check checkMissingEngine(GenerationEngineID engine, const std::optional<CurrentUser>& user) {
  const std::string subject(wireValue(engine));
  const auto executable = resolveEngine(engine, user);
  if (executable) {
    return {notice, subject,
            safeLine(executable->string()) + " is here, but the helper does not find it",
            "The helper may run with another home directory or in a container."};
  }
  std::string remedy = user ? refusedCandidates(executableName(engine), *user) : std::string();
  if (remedy.empty()) remedy = howToInstall(engine);
  return {notice, subject, safeLine(executable.error().detail.value_or("not usable")),
          safeLine(remedy)};
}

Check checkFoundEngine(GenerationEngineID engine, const std::optional<CurrentUser>& user,
                       const std::optional<std::string>& version) {
  const auto executable = resolveEngine(engine, user);
  const std::string path = executable ? safeLine(executable->string()) : "found by the helper";
  Check check{good, std::string(wireValue(engine)), path};
  if (version && !version->empty()) {
    check.finding += ", version " + safeLine(*version);
  } else {
    check.outcome = notice;
    check.finding += ", but it does not tell its version within 10 seconds";
    check.remedy =
        "See how it answers by itself: " + std::string(executableName(engine)) + " --version";
  }
  return check;
}

Check checkEngine(Transport* transport, GenerationEngineID engine,
                  const std::optional<CurrentUser>& user, bool& isAnyUsable) {
  const std::string subject(wireValue(engine));
  const std::optional<CallReply> reply = askAboutEngine(transport, engine);
  if (!reply) {
    const auto executable = resolveEngine(engine, user);
    if (!executable) return checkMissingEngine(engine, user);
    isAnyUsable = true;
    return {good, subject, safeLine(executable->string())};
  }
  if (!*reply) return failedCall(subject, reply->error());
  const auto status = decoded<EngineStatus>(*reply);
  if (!status) return unreadable(subject);
  if (!status->binaryFound) return checkMissingEngine(engine, user);
  isAnyUsable = true;
  return checkFoundEngine(engine, user, status->version);
}

std::vector<Check> checkEngines(Transport* transport, const std::optional<CurrentUser>& user) {
  std::vector<Check> checks;
  checks.reserve(allGenerationEngineIDs.size());
  bool isAnyUsable = false;
  for (const GenerationEngineID engine : allGenerationEngineIDs) {
    checks.push_back(checkEngine(transport, engine, user, isAnyUsable));
  }
  if (!isAnyUsable) {
    for (Check& check : checks) check.outcome = bad;
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
    console::printBody(
        asJSON(checks).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  } else {
    for (const Check& check : checks) show(check);
    console::print(isSound ? "\nText can be generated.\n"
                           : "\nText cannot be generated until what is marked bad is put right.\n");
  }
  return isSound ? ExitStatus::done : ExitStatus::refused;
}

}  // namespace tessaloom
