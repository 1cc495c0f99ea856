#include "CallCommands.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>

#include "HelperProtocol/CallLoad.h"
#include "HelperProtocol/EngineStatus.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/HelperCapabilities.h"
#include "HelperProtocol/HelperFreshness.h"
#include "HelperProtocol/Methods.h"
#include "HelperProtocol/ProcessMessages.h"

namespace tessaloom {
namespace {

using Console::print;
using Console::safeLine;

/// The limit of a body, for people.
std::string bodyLimit() {
  return std::to_string(CallLoad::maximumBytes / 1'048'576) + " MiB";
}

void showCapabilities(const HelperCapabilities& capabilities) {
  print("Helper version  " + safeLine(capabilities.helperVersion) + "\n");
  std::string names;
  for (const std::string& name : capabilities.names) {
    names.append(names.empty() ? "" : ", ").append(safeLine(name));
  }
  print("Capabilities    " + names + "\n");
}

void showFreshness(const HelperFreshness& freshness) {
  if (!freshness.isOutdated()) {
    print("The running helper is up to date.\n");
  } else if (freshness.willExit()) {
    print(
        "The helper's executable has been replaced. It will exit as soon as no engine is\n"
        "running; the next call starts the new one.\n");
  } else {
    print("The helper's executable has been replaced, but the helper keeps running.\n");
  }
}

void showEngineStatus(const EngineStatus& status) {
  const std::string engine(wireValue(status.engine));
  if (!status.binaryFound) {
    print(engine + ": not found\n");
    if (Console::outputIsTerminal()) {
      print("To see why: tessaloom-helperctl doctor\n");
    }
    return;
  }
  print(engine + ": found, version " +
        (status.version && !status.version->empty() ? safeLine(*status.version) : "unknown") +
        "\n");
  if (status.authenticated) {
    print(*status.authenticated ? "It is signed in.\n" : "It is not signed in.\n");
  }
}

void showCancel(const KillResult& result) {
  if (result.succeeded) {
    print("The generation is being cancelled.\n");
    return;
  }
  Console::printError(
      result.message ? safeLine(*result.message) : "no engine is running under this ID",
      result.message ? "" : "If one starts later, its generation will end as cancelled.");
}

}  // namespace

std::expected<GenerationEngineID, UsageError> readEngine(std::string_view name) {
  try {
    return generationEngineID(name);
  } catch (const GenerationDTOError&) {
    return usageError("unknown engine \"" + safeLine(name) + "\": use claudeCode or codex");
  }
}

std::expected<UUID, UsageError> readUUID(std::string_view text) {
  if (const auto uuid = UUID::parse(text)) return *uuid;
  return usageError("\"" + safeLine(text) +
                    "\" is not a UUID, such as 6B29FC40-CA47-4067-B31D-00DD010662DA");
}

std::system_error inputError(int error) {
  return {error, std::generic_category(), "standard input cannot be read"};
}

std::expected<std::string, UsageError> readStandardInput(std::string_view limit) {
  std::string text;
  while (text.size() <= CallLoad::maximumBytes) {
    const std::size_t before = text.size();
    text.resize(before + 65'536);
    const ssize_t count = ::read(STDIN_FILENO, text.data() + before, 65'536);
    text.resize(before + (count > 0 ? static_cast<std::size_t>(count) : 0));
    if (count == 0) return text;
    if (count < 0 && errno == EAGAIN) {
      pollfd input{STDIN_FILENO, POLLIN, 0};
      (void)::poll(&input, 1, -1);
    } else if (count < 0 && errno != EINTR) {
      throw inputError(errno);
    }
  }
  return usageError("standard input is longer than " + bodyLimit() + "; the limit is " +
                    std::string(limit));
}

CommandResult runVersion(const Arguments& arguments) {
  const CallReply reply = callOnce(methodNamed("ProtocolVersion").name);
  if (!reply) return reportError(reply.error(), arguments.has(jsonOption.name));
  if (arguments.has(jsonOption.name)) {
    Console::printJSON(*reply);
  } else {
    print("Protocol version " + safeLine(*reply) + "\n");
  }
  return ExitStatus::done;
}

CommandResult runCapabilities(const Arguments& arguments) {
  return showReply<HelperCapabilities>(callOnce(methodNamed("HelperCapabilities").name), arguments,
                                       showCapabilities);
}

CommandResult runFreshness(const Arguments& arguments) {
  return showReply<HelperFreshness>(callOnce(methodNamed("QuitIfOutdated").name), arguments,
                                    showFreshness);
}

CommandResult runEngineStatus(const Arguments& arguments) {
  const auto engine = readEngine(arguments.positionals().front());
  if (!engine) return std::unexpected(engine.error());
  const Bytes body = HelperCoding::makeEncoder().encode(EngineStatusRequest{*engine});
  return showReply<EngineStatus>(
      callOnce(methodNamed("GenerationEngineStatus").name, body), arguments, showEngineStatus,
      [&engine](const EngineStatus& status) { return status.engine == *engine; });
}

CommandResult runCancel(const Arguments& arguments) {
  const auto uuid = readUUID(arguments.positionals().front());
  if (!uuid) return std::unexpected(uuid.error());
  const Bytes body = HelperCoding::makeEncoder().encode(GenerationCancelRequest{*uuid});
  const CallReply reply = callOnce(methodNamed("CancelGeneration").name, body);
  return showReply<KillResult>(reply, arguments, showCancel);
}

CommandResult runCall(const Arguments& arguments) {
  const std::string& name = arguments.positionals().front();
  const Method* method = findMethod(name);
  std::optional<Bytes> body;
  if (arguments.positionals().size() > 1) {
    if (method != nullptr && !method->takesRequest()) {
      return usageError(name + " takes no body");
    }
    const std::string& given = arguments.positionals()[1];
    auto read = given == "-" ? readStandardInput(bodyLimit()) : given;
    if (!read) return std::unexpected(read.error());
    body = *std::move(read);
  } else if (method != nullptr && method->takesRequest()) {
    body.emplace();
  }
  const Wait wait = method != nullptr && method->kind == Method::Kind::generation ? Wait::silent
                                                                                  : Wait::announced;
  const CallReply reply = callOnce(name, body, std::nullopt, wait);
  if (!reply) return reportError(reply.error(), arguments.has(jsonOption.name));
  arguments.has(jsonOption.name) ? Console::printJSON(*reply) : Console::printBody(*reply);
  return ExitStatus::done;
}

}  // namespace tessaloom
