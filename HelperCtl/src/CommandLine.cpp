#include <algorithm>
#include <string>
#include <vector>

#include "Command.h"

namespace tessaloom {
namespace {

constexpr std::array generateOptions{engineOption, shapeOption, instructionsOption, timeoutOption,
                                     idOption};

constexpr std::array killOptions{signalOption};

constexpr std::array commands{
    Command{"version", "", "the protocol version it speaks", "", {}, 0, 0, runVersion},
    Command{"capabilities",
            "",
            "what the helper offers, and its version",
            "",
            {},
            0,
            0,
            runCapabilities},
    Command{"freshness",
            "",
            "whether its executable was replaced",
            "A helper whose executable was replaced leaves once no generation runs; the next\n"
            "call starts the new one.\n",
            {},
            0,
            0,
            runFreshness},
    Command{"ps",
            "",
            "your processes",
            "Only processes of the current user are listed.\n",
            {},
            0,
            0,
            runPs},
    Command{"ports",
            "",
            "the ports that your processes listen on",
            "Listening TCP sockets and bound UDP sockets of the current user's processes.\n",
            {},
            0,
            0,
            runPorts},
    Command{"kill", "PID [--signal SIGNAL]", "signal a process of yours",
            "Lists the processes and signals the one, over one connection: the helper signals\n"
            "only what it has just listed.\n",
            killOptions, 1, 1, runKill},
    Command{"engine-status",
            "ENGINE",
            "whether an engine is installed",
            "ENGINE is claudeCode or codex. An engine that is not found is an answer too: the\n"
            "exit status is 0.\n",
            {},
            1,
            1,
            runEngineStatus},
    Command{"generate", "--engine ENGINE [PROMPT|-]", "generate text",
            "The prompt is one argument, or standard input when it is - or missing.\n"
            "Interrupting (Ctrl-C) cancels the generation; a second time leaves at once.\n",
            generateOptions, 0, 1, runGenerate},
    Command{"cancel",
            "UUID",
            "cancel a generation",
            "Exit status 1 when no engine was running under that id.\n",
            {},
            1,
            1,
            runCancel},
    Command{"call",
            "METHOD [BODY|-]",
            "one call, the bytes as they are",
            "METHOD is one of these; some take a JSON body, with - from standard input:\n"
            "  ProtocolVersion, ListProcesses, ListListeningPorts, HelperCapabilities,\n"
            "  QuitIfOutdated, KillProcess BODY, GenerateText BODY, CancelGeneration BODY,\n"
            "  GenerationEngineStatus BODY\n",
            {},
            1,
            2,
            runCall},
    Command{"session",
            "",
            "many calls over one connection",
            "Each line of standard input, METHOD BODY, is sent as soon as it is read. Each\n"
            "reply is a line, N ok BODY or N error NAME MESSAGE, where N is the number of its\n"
            "call's line. Ends at end of input once all replies are in, with exit status 0\n"
            "whatever they say, or 3 when a call did not reach the helper.\n",
            {},
            0,
            0,
            runSession},
    Command{"doctor",
            "",
            "find out what is wrong",
            "Checks the way to the helper and to the engines, step by step, and says what to\n"
            "do. Exit status 1 when text cannot be generated.\n",
            {},
            0,
            0,
            runDoctor},
};

const Command* findCommand(std::string_view name) {
  const auto found = std::ranges::find(commands, name, &Command::name);
  return found == commands.end() ? nullptr : &*found;
}

std::string padded(std::string_view text, std::size_t width) {
  std::string result(text);
  result.resize(std::max(width, text.size() + 1), ' ');
  return result;
}

std::string usageOf(const Command& command) {
  std::string text(command.name);
  if (!command.usage.empty()) text.append(" ").append(command.usage);
  return text;
}

std::string optionLine(const OptionRule& rule) {
  std::string name(rule.name);
  if (!rule.valueName.empty()) name.append(" ").append(rule.valueName);
  return "  " + padded(name, 22) + std::string(rule.summary) + "\n";
}

std::string generalHelp() {
  std::string text =
      "Usage: tessaloom-helperctl COMMAND [OPTIONS]\n"
      "Try, debug and test the Tessaloom helper of the current user.\n\n";
  for (const Command& command : commands) {
    text += "  " + padded(usageOf(command), 36) + std::string(command.summary) + "\n";
  }
  text += "\n";
  for (const OptionRule& rule : commonOptions) text += optionLine(rule);
  text +=
      "\nCOMMAND --help tells more about one command.\n"
      "Exit status: 0 done, 1 the helper answered an error or refused, 2 wrong usage,\n"
      "3 the helper could not be reached.\n";
  return text;
}

std::string helpOf(const Command& command) {
  std::string text = "Usage: tessaloom-helperctl " + usageOf(command);
  if (!command.options.empty()) text += " [OPTIONS]";
  std::string summary(command.summary);
  summary.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(summary.front())));
  text += "\n" + summary + ".\n\n";
  if (!command.details.empty()) text.append(command.details).append("\n");
  for (const OptionRule& rule : command.options) text += optionLine(rule);
  for (const OptionRule& rule : commonOptions) text += optionLine(rule);
  return text;
}

ExitStatus printAndLeave(std::string_view text) {
  console::print(text);
  return console::flushOutput() ? ExitStatus::done : ExitStatus::refused;
}

ExitStatus refuseUsage(const UsageError& error, const Command* command) {
  std::string name = "tessaloom-helperctl ";
  if (command != nullptr) name.append(command->name).append(" ");
  console::printError(console::safeLine(error.message), "See: " + name + "--help");
  return ExitStatus::usage;
}

ExitStatus runCommand(const Command& command, std::span<const std::string> words) {
  std::vector<OptionRule> rules(command.options.begin(), command.options.end());
  rules.insert(rules.end(), commonOptions.begin(), commonOptions.end());
  const auto arguments = Arguments::parse(words, rules);
  if (!arguments) return refuseUsage(arguments.error(), &command);
  if (arguments->has(helpOption.name)) return printAndLeave(helpOf(command));
  if (arguments->has(versionOption.name)) {
    return printAndLeave("tessaloom-helperctl " TESSALOOM_VERSION "\n");
  }
  const std::size_t count = arguments->positionals().size();
  if (count < command.minimumPositionals) {
    return refuseUsage({"something is missing: " + usageOf(command)}, &command);
  }
  if (count > command.maximumPositionals) {
    return refuseUsage({"too many arguments from \"" +
                        console::safeLine(arguments->positionals()[command.maximumPositionals]) +
                        "\" on; put text with spaces in quotes"},
                       &command);
  }
  const CommandResult result = command.run(*arguments);
  if (!result) return refuseUsage(result.error(), &command);
  if (!console::flushOutput() && *result == ExitStatus::done) return ExitStatus::refused;
  return *result;
}

}  // namespace

std::span<const Command> allCommands() {
  return commands;
}

ExitStatus runCommandLine(std::span<const std::string> words) {
  // The command is the first word that is no common option; those take no values.
  const auto first = std::ranges::find_if(
      words, [](const std::string& word) { return word.size() < 2 || word.front() != '-'; });
  if (first != words.end() && *first != "help") {
    const Command* command = findCommand(*first);
    if (command == nullptr) {
      return refuseUsage({"unknown command \"" + console::safeLine(*first) + "\""}, nullptr);
    }
    std::vector<std::string> rest(words.begin(), first);
    rest.insert(rest.end(), first + 1, words.end());
    return runCommand(*command, rest);
  }
  const auto arguments =
      Arguments::parse(std::span(words.begin(), first), std::span(commonOptions));
  if (!arguments) return refuseUsage(arguments.error(), nullptr);
  if (arguments->has(versionOption.name)) {
    return printAndLeave("tessaloom-helperctl " TESSALOOM_VERSION "\n");
  }
  if (first != words.end() || arguments->has(helpOption.name)) return printAndLeave(generalHelp());
  console::printToError(generalHelp());
  return ExitStatus::usage;
}

}  // namespace tessaloom
