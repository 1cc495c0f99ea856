#include <algorithm>
#include <cctype>
#include <exception>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "Client.h"
#include "Command.h"
#include "HelperProtocol/Methods.h"

namespace tessaloom {
namespace {

constexpr std::string_view versionText = "tessaloom-helperctl " TESSALOOM_VERSION "\n";

constexpr std::array generateOptions{engineOption, shapeOption, instructionsOption, timeoutOption,
                                     idOption};
constexpr std::array killOptions{signalOption};
constexpr std::array psOptions{
    OptionRule{.name = "--sort",
               .valueName = "COLUMN",
               .summary = "pid (default), command, memory, age, terminal, parent",
               .valueKind = WordKind::processColumn},
    headersOption, watchOption};
constexpr std::array portsOptions{
    OptionRule{.name = "--sort",
               .valueName = "COLUMN",
               .summary = "port (default), protocol, process, pid, address",
               .valueKind = WordKind::portColumn},
    headersOption, watchOption};

constexpr std::array processFilters{Positional{"NAME|PID", WordKind::processName, true, true}};
constexpr std::array portFilters{Positional{"NAME|PID|PORT", WordKind::port, true, true}};
constexpr std::array processes{Positional{"PID", WordKind::process, false, true}};
constexpr std::array engine{Positional{"ENGINE", WordKind::engine}};
constexpr std::array prompt{Positional{"PROMPT|-", WordKind::text, true}};
constexpr std::array generation{Positional{"UUID"}};
constexpr std::array methodAndBody{Positional{"METHOD", WordKind::method},
                                   Positional{"BODY|-", WordKind::text, true}};

constexpr std::array commands{
    Command{"version", "show the helper's protocol version", "", {}, {}, runVersion},
    Command{"capabilities", "show helper version and capabilities", "", {}, {}, runCapabilities},
    Command{"freshness",
            "let an outdated helper exit",
            "A helper whose executable has been replaced exits once no engine is running;\n"
            "the next call starts the new one.\n",
            {},
            {},
            runFreshness},
    Command{"ps", "list your processes",
            "Only processes of the current user are listed; with arguments, only those of\n"
            "that process ID or with that text in their names.\n",
            processFilters, psOptions, runPs},
    Command{"ports", "list ports that your processes listen on",
            "Listening TCP sockets and bound UDP sockets of the current user's processes;\n"
            "with arguments, only those of that port, process ID or process name.\n",
            portFilters, portsOptions, runPorts},
    Command{"kill", "send a signal to your processes",
            "SIGNAL is INT, TERM or KILL in upper or lower case, also as a number or with the\n"
            "SIG prefix; -9 and -KILL work too. The processes are listed first over the same\n"
            "connection: the helper signals only what it has just listed.\n",
            processes, killOptions, runKill},
    Command{"engine-status",
            "check whether an engine is installed",
            "ENGINE is claudeCode or codex. An engine that is not found is a valid answer:\n"
            "the exit status is 0.\n",
            engine,
            {},
            runEngineStatus},
    Command{"generate", "generate text",
            "The prompt is one argument, or standard input when it is - or missing.\n"
            "Ctrl-C cancels the generation; press it again to quit immediately.\n",
            prompt, generateOptions, runGenerate},
    Command{"cancel",
            "cancel a generation",
            "UUID is the ID that generate printed or was given with --id. Exit status 1 if no\n"
            "engine was running under that ID.\n",
            generation,
            {},
            runCancel},
    Command{"call",
            "send one raw call",
            "METHOD is one of the names below. The body is JSON; with - it is read from\n"
            "standard input. The methods, and which of them take a body:\n",
            methodAndBody,
            {},
            runCall},
    Command{"session",
            "send many calls over one connection",
            "Each line of standard input, METHOD BODY, is sent as soon as it is read, as long\n"
            "as the helper takes more calls. Each reply is a line, N ok BODY or N error NAME\n"
            "MESSAGE, where N is the number of its call's line. Exits at the end of input,\n"
            "once all replies have come: with status 0 regardless of what they contain, 3 if\n"
            "no answer came to one.\n",
            {},
            {},
            runSession},
    Command{"doctor",
            "check the helper and the engines",
            "Checks step by step whether the helper and the engines can be reached, and says\n"
            "what to do. Exit status 1 if text cannot be generated.\n",
            {},
            {},
            runDoctor},
};

std::string padded(std::string_view text, std::size_t width) {
  std::string result(text);
  result.resize(std::max(width, text.size() + 1), ' ');
  return result;
}

std::string usageOf(const Command& command) {
  std::string text(command.name);
  for (const OptionRule& rule : command.options) {
    if (rule.isRequired) text.append(" ").append(rule.name).append(" ").append(rule.valueName);
  }
  for (const Positional& positional : command.positionals) {
    std::string word(positional.name);
    if (positional.repeats) word += "...";
    text += positional.isOptional ? " [" + word + "]" : " " + word;
  }
  return text;
}

std::string optionLine(const OptionRule& rule) {
  std::string name = rule.letter == 0 ? "    " : std::string{'-', rule.letter, ',', ' '};
  name += rule.name;
  if (!rule.valueName.empty()) name.append(" ").append(rule.valueName);
  return "  " + padded(name, 25) + std::string(rule.summary) + "\n";
}

UsageError unknownCommand(std::string_view word) {
  std::vector<std::string_view> names{"help"};
  std::ranges::transform(commands, std::back_inserter(names), &Command::name);
  return {"unknown command \"" + std::string(word) + "\"" + suggestion(word, names)};
}

std::string generalHelp() {
  std::string text =
      "Usage: tessaloom-helperctl COMMAND [OPTIONS]\n"
      "Try, debug and test the Tessaloom helper of the current user.\n\n";
  const auto line = [](const std::string& usage, std::string_view summary) {
    return "  " + padded(usage, 37) + std::string(summary) + "\n";
  };
  for (const Command& command : commands) text += line(usageOf(command), command.summary);
  text += line("help [COMMAND]", "show this help, or a command's details") + "\n";
  for (const OptionRule& rule : commonOptions) text += optionLine(rule);
  text +=
      "\nExit status: 0 done, 1 the helper answered with an error or refused, or input or\n"
      "output failed, 2 wrong usage, 3 no answer came from the helper.\n";
  return text;
}

std::string helpOf(const Command& command) {
  std::string text = "Usage: tessaloom-helperctl " + usageOf(command);
  if (!command.options.empty()) text += " [OPTIONS]";
  std::string summary(command.summary);
  summary.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(summary.front())));
  text += "\n" + summary + ".\n\n";
  text += command.details;
  if (!command.positionals.empty() && command.positionals.front().kind == WordKind::method) {
    for (const Method& method : methods) {
      text.append("  ").append(method.name).append(method.takesRequest() ? " BODY\n" : "\n");
    }
  }
  if (!command.details.empty()) text += "\n";
  for (const OptionRule& rule : command.options) text += optionLine(rule);
  for (const OptionRule& rule : commonOptions) text += optionLine(rule);
  return text;
}

/// The exit status once all output is written.
ExitStatus flushed(ExitStatus status, bool json) {
  const int error = Console::flushOutput();
  if (error == 0) return status;
  return std::max(status, reportOutputError(error, json));
}

ExitStatus printAndExit(std::string_view text) {
  Console::print(text);
  return flushed(ExitStatus::done, false);
}

ExitStatus refuseUsage(const UsageError& error, const Command* command, bool json) {
  std::string name = "tessaloom-helperctl ";
  if (command != nullptr) name.append(command->name).append(" ");
  CallError refusal{CallError::Category::failed, "usage", error.message};
  refusal.advice = "See: " + name + "--help";
  reportError(refusal, json);
  return ExitStatus::usage;
}

/// What is wrong with the number of positionals; nullopt if nothing is.
std::optional<UsageError> checkCount(const Command& command,
                                     std::span<const std::string> positionals) {
  const auto& expected = command.positionals;
  if (positionals.size() < expected.size() && !expected[positionals.size()].isOptional) {
    return UsageError{"missing argument: " + std::string(expected[positionals.size()].name)};
  }
  const bool isOpen = !expected.empty() && expected.back().repeats;
  if (isOpen || positionals.size() <= expected.size()) return std::nullopt;
  UsageError error{"unexpected argument \"" + positionals[expected.size()] + "\""};
  // Such an argument is a text.
  if (!expected.empty() && expected.back().isOptional) {
    error.message += "; quote text that contains spaces";
  }
  return error;
}

/// `namesJSON` is whether a word is --json, which may also be the value of another option.
ExitStatus runCommand(const Command& command, std::span<const std::string> words, bool namesJSON) {
  const auto arguments = Arguments::parse(words, optionsOf(&command));
  if (!arguments) return refuseUsage(arguments.error(), &command, namesJSON);
  const bool json = arguments->has(jsonOption.name);
  if (arguments->has(helpOption.name)) return printAndExit(helpOf(command));
  if (arguments->has(versionOption.name)) return printAndExit(versionText);
  if (const auto error = checkCount(command, arguments->positionals())) {
    return refuseUsage(*error, &command, json);
  }
  try {
    const CommandResult result = command.run(*arguments);
    if (!result) return refuseUsage(result.error(), &command, json);
    return flushed(*result, json);
  } catch (const std::exception& error) {
    return reportError({CallError::Category::failed, "failed", error.what()}, json);
  }
}

/// `help` and `help COMMAND`.
ExitStatus runHelp(std::span<const std::string> words, bool json) {
  const auto arguments = Arguments::parse(words, std::span(commonOptions));
  if (!arguments) return refuseUsage(arguments.error(), nullptr, json);
  if (arguments->has(versionOption.name)) return printAndExit(versionText);
  const auto& names = arguments->positionals();
  if (names.size() > 1) {
    return refuseUsage({"unexpected argument \"" + names[1] + "\""}, nullptr, json);
  }
  if (names.empty() || names.front() == "help") return printAndExit(generalHelp());
  const Command* command = findCommand(names.front());
  if (command == nullptr) return refuseUsage(unknownCommand(names.front()), nullptr, json);
  return printAndExit(helpOf(*command));
}

}  // namespace

std::span<const Command> allCommands() {
  return commands;
}

const Command* findCommand(std::string_view name) {
  const auto found = std::ranges::find(commands, name, &Command::name);
  return found == commands.end() ? nullptr : &*found;
}

std::vector<OptionRule> optionsOf(const Command* command) {
  std::vector<OptionRule> rules;
  if (command != nullptr) rules.assign(command->options.begin(), command->options.end());
  rules.insert(rules.end(), commonOptions.begin(), commonOptions.end());
  return rules;
}

ExitStatus runCommandLine(std::span<const std::string> words) {
  if (!words.empty() && words.front() == "__complete") {
    printCompletions(words.subspan(1));
    return ExitStatus::done;
  }
  const auto end = std::ranges::find(words, "--");
  const bool json = std::find(words.begin(), end, jsonOption.name) != end;
  // Of options only the common ones, which take no values, may precede the command.
  const auto first = std::ranges::find_if(
      words, [](const std::string& word) { return word.size() < 2 || word.front() != '-'; });
  if (first != words.end()) {
    std::vector<std::string> rest(words.begin(), first);
    rest.insert(rest.end(), first + 1, words.end());
    if (*first == "help") return runHelp(rest, json);
    const Command* command = findCommand(*first);
    if (command == nullptr) return refuseUsage(unknownCommand(*first), nullptr, json);
    return runCommand(*command, rest, json);
  }
  const auto arguments = Arguments::parse(words, std::span(commonOptions));
  if (!arguments) return refuseUsage(arguments.error(), nullptr, json);
  if (arguments->has(versionOption.name)) return printAndExit(versionText);
  if (arguments->has(helpOption.name)) return printAndExit(generalHelp());
  if (json) return refuseUsage({"missing argument: COMMAND"}, nullptr, json);
  Console::printToError(generalHelp());
  return ExitStatus::usage;
}

}  // namespace tessaloom
