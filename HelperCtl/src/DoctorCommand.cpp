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
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "CallCommands.h"
#include "Client.h"
#include "Command.h"
#include "DoctorChecks.h"
#include "HelperCore/CurrentUser.h"
#include "HelperCore/PerUserTemporaryDirectory.h"
#include "HelperProtocol/HelperCapabilities.h"
#include "HelperProtocol/HelperCoding.h"
#include "HelperProtocol/HelperConstants.h"
#include "HelperProtocol/Methods.h"
#include "TLFoundation/ErrnoText.h"

namespace tessaloom {
namespace {

using Console::safeLine;
using enum Check::Outcome;

/// How long the first call may take, with the helper's start and its decision about this program.
constexpr std::chrono::seconds firstCallTimeLimit{20};

/// Whether the helper starts, accepts this program and answers. The first call may start it.
Check checkAnswer(Transport& transport) {
  const auto start = std::chrono::steady_clock::now();
  const CallReply reply = callAndWait(transport, methodNamed("ProtocolVersion").name, std::nullopt,
                                      firstCallTimeLimit, Wait::silent);
  if (!reply && reply.error().name == timedOutError) {
    return {bad, "answer", reply.error().message, adviceForSilence()};
  }
  if (!reply) return failedCall("answer", reply.error());
  if (const std::string own = std::to_string(HelperConstants::protocolVersion); *reply != own) {
    return {bad, "answer",
            "it speaks protocol version " + safeLine(*reply) + ", this program version " + own,
            differentVersionsAdvice};
  }
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::steady_clock::now() - start);
  return {good, "answer",
          "accepted this program; first reply after " + std::to_string(elapsed.count()) + " ms"};
}

Check checkVersion(Transport& transport) {
  const CallReply reply = callAndWait(transport, methodNamed("HelperCapabilities").name);
  if (!reply) return failedCall("version", reply.error());
  const auto capabilities = decodeReply<HelperCapabilities>(*reply);
  if (!capabilities) return unreadableReply("version");
  const std::string version = safeLine(capabilities->helperVersion);
  if (std::ranges::count(capabilities->names, HelperCapabilityNames::textGeneration) == 0) {
    return {
        bad, "version",
        "the helper, " + version + ", lacks " + std::string(HelperCapabilityNames::textGeneration),
        differentVersionsAdvice};
  }
  if (version == TESSALOOM_VERSION) return {good, "version", version};
  return {notice, "version", "the helper is " + version + ", this program " TESSALOOM_VERSION,
          "After an upgrade, let the old helper exit: tessaloom-helperctl freshness"};
}

Check checkUser(const std::optional<CurrentUser>& user) {
  if (!user) {
    return {bad, "user", "the user database has no user " + std::to_string(::getuid()),
            "See: getent passwd " + std::to_string(::getuid())};
  }
  return {good, "user",
          safeLine(user->loginName) + ", home " + safeLine(user->homeDirectory.string())};
}

/// What is wrong with an existing directory, and what to do.
struct Misuse {
  std::string finding;
  std::string remedy = {};  // NOLINT(readability-redundant-member-init): may be left out.
};

/// Why the helper would not use it: it must be a directory of this user with mode 0700. nullopt if
/// it would.
std::optional<Misuse> misuse(const struct stat& facts, const std::string& path) {
  const std::string removal = "Remove it, as root if need be: rm -r " + path;
  if (S_ISLNK(facts.st_mode)) return Misuse{"is a symbolic link", "Remove it: rm " + path};
  if (!S_ISDIR(facts.st_mode)) return Misuse{"is not a directory", removal};
  if (facts.st_uid != ::geteuid()) return Misuse{"belongs to another user", removal};
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
  const bool exists = ::lstat(place.c_str(), &facts) == 0;
  if (exists) {
    if (const auto problem = misuse(facts, path)) {
      return {bad, "temporary files", path + " " + problem->finding, problem->remedy};
    }
  }
  // The helper makes the directory when it needs it.
  std::string probe = (exists ? place : place.parent_path()).string() + "/tessaloom-doctor-XXXXXX";
  if (::mkdtemp(probe.data()) == nullptr) {
    const std::string directory = safeLine(std::filesystem::path(probe).parent_path().string());
    return {bad, "temporary files", directory + ": " + errnoText(errno),
            "Check its permissions and free space: ls -ld " + directory + "; df " + directory};
  }
  ::rmdir(probe.c_str());
  return {good, "temporary files", path + " is writable"};
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
    if (!answers) {
      // The call may have started the helper, and which one it is explains more.
      auto again = checkWayToHelper();
      again.push_back(checks.back());
      checks = std::move(again);
    }
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
  const auto style = check.outcome == good     ? Console::Style::good
                     : check.outcome == notice ? Console::Style::bold
                                               : Console::Style::bad;
  std::string mark(word(check.outcome));
  mark.resize(6, ' ');
  std::string subject = check.subject;
  subject.resize(std::max<std::size_t>(17, subject.size() + 1), ' ');
  Console::print(Console::styledForOutput(style, mark) + subject + check.finding + "\n");
  if (!check.remedy.empty()) Console::print(std::string(23, ' ') + check.remedy + "\n");
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

Check failedCall(const std::string& subject, const CallError& error) {
  return {bad, subject, safeLine(error.message.empty() ? error.name : error.message), error.advice};
}

Check unreadableReply(const std::string& subject) {
  return {bad, subject, "the helper's reply could not be read", differentVersionsAdvice};
}

CommandResult runDoctor(const Arguments& arguments) {
  const std::vector<Check> checks = allChecks();
  const bool isSound =
      std::ranges::none_of(checks, [](const Check& c) { return c.outcome == bad; });
  if (arguments.has(jsonOption.name)) {
    Console::printJSON(
        asJSON(checks).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  } else {
    for (const Check& check : checks) show(check);
    Console::print(
        isSound
            ? "\nText can be generated, provided the engine is signed in, which is known only "
              "once it is used.\n"
            : "\nText cannot be generated. Fix what is marked \"bad\"; one engine is enough.\n");
  }
  return isSound ? ExitStatus::done : ExitStatus::refused;
}

}  // namespace tessaloom
