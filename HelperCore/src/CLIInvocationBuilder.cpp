#include "HelperCore/CLIInvocationBuilder.h"

#include "HelperCore/BinaryAllowlist.h"
#include "HelperCore/GenerationSchema.h"
#include "PathText.h"
#include "TLFoundation/Unicode.h"

namespace tessaloom {
namespace {

/// What every engine is given.
constexpr std::string_view rules =
    "You are a text generation service inside a document editor. You return only the requested "
    "artifact and nothing else.\n\n"
    "Never explain what you are doing or about to do. Never describe your tools, your environment, "
    "or what you can and cannot access. Never add an introduction, a preamble, or a closing "
    "summary of what you changed. Never wrap the entire response in a code fence. Never address "
    "the user.\n\n"
    "Output the artifact itself, starting with its first character.";
static_assert(rules.size() == 463);

std::string searchPath(const std::filesystem::path& homeDirectory) {
  std::string joined;
  for (const std::filesystem::path& location :
       CLIInvocationBuilder::searchLocations(homeDirectory)) {
    if (!joined.empty()) joined += ':';
    joined += location.string();
  }
  return joined;
}

}  // namespace

std::vector<std::filesystem::path> CLIInvocationBuilder::searchLocations(
    const std::filesystem::path& homeDirectory) {
  return BinaryAllowlist::searchLocations(homeDirectory);
}

Environment CLIInvocationBuilder::environment(const std::filesystem::path& homeDirectory,
                                              const std::string& loginName,
                                              const std::filesystem::path& temporaryDirectory) {
  return {{"HOME", directoryText(homeDirectory)},
          {"USER", loginName},
          {"LOGNAME", loginName},
          {"PATH", searchPath(homeDirectory)},
          {"TMPDIR", directoryText(temporaryDirectory)},
          {"SHELL", "/bin/zsh"},
          {"TERM", "dumb"},
          {"LANG", "en_US.UTF-8"},
          {"LC_ALL", "en_US.UTF-8"}};
}

std::vector<std::string> CLIInvocationBuilder::claudeArguments(GenerationShape shape) {
  return {"--print",
          "--safe-mode",
          "--no-session-persistence",
          "--strict-mcp-config",
          "--permission-prompts",
          "none",
          "--tools",
          "",  // No tools at all.
          "--output-format",
          "json",
          "--system-prompt",
          std::string(rules),
          "--json-schema",
          std::string(GenerationSchema::text(shape))};
}

std::vector<std::string> CLIInvocationBuilder::codexArguments(
    const std::optional<std::filesystem::path>& schemaFile) {
  std::vector<std::string> arguments{"exec",
                                     "--ephemeral",
                                     "--skip-git-repo-check",
                                     "--ignore-user-config",
                                     "--ignore-rules",
                                     "-s",
                                     "read-only",
                                     "--color",
                                     "never",
                                     "--json"};
  if (schemaFile) {
    arguments.emplace_back("--output-schema");
    arguments.push_back(schemaFile->string());
  }
  arguments.emplace_back("-");  // The prompt comes on standard input.
  return arguments;
}

std::vector<std::string> CLIInvocationBuilder::arguments(
    GenerationEngineID engine, GenerationShape shape,
    const std::optional<std::filesystem::path>& schemaFile) {
  return engine == GenerationEngineID::codex ? codexArguments(schemaFile) : claudeArguments(shape);
}

CLIInvocation CLIInvocationBuilder::versionProbe(std::filesystem::path executable,
                                                 Environment environment) {
  return {.executable = std::move(executable),
          .arguments = {"--version"},
          .environment = std::move(environment),
          .workingDirectory = std::nullopt,
          .standardInput = std::nullopt};
}

std::string CLIInvocationBuilder::prompt(std::string_view instructions, std::string_view prompt) {
  std::string text("OUTPUT RULES\n");
  text += rules;
  if (const std::string_view trimmed = Unicode::trimmed(instructions); !trimmed.empty()) {
    text += "\n\nSYSTEM INSTRUCTIONS\n";
    text += trimmed;
  }
  text += "\n\nTASK\n";
  text += prompt;
  return text;
}

}  // namespace tessaloom
