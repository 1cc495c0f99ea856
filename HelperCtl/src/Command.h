#pragma once

#include <array>
#include <expected>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Arguments.h"
#include "Console.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationTimeout.h"

namespace tessaloom {

/// How a command ended, or what was wrong with its command line.
using CommandResult = std::expected<ExitStatus, UsageError>;

/// An argument of a command that is not an option.
struct Positional {
  std::string_view name;  ///< As in "PID".
  WordKind kind = WordKind::text;
  bool isOptional = false;
  bool repeats = false;  ///< Of the last one only.
};

/// One command of the client. Dispatch, help and completion all read one table of commands.
struct Command {
  std::string_view name;
  std::string_view summary;  ///< One short line, an imperative.
  std::string_view details;  ///< Shown by COMMAND --help; may be empty.
  std::span<const Positional> positionals;
  std::span<const OptionRule> options;  ///< Besides those that every command takes.
  CommandResult (*run)(const Arguments& arguments);
};

/// Options that every command takes, also before the command's name.
inline constexpr OptionRule jsonOption{"--json", "", "print replies and errors as JSON"};
inline constexpr OptionRule helpOption{"--help", "", "show this help", 'h'};
inline constexpr OptionRule versionOption{"--version", "", "show the version of this program", 'V'};
inline constexpr std::array commonOptions{jsonOption, helpOption, versionOption};

inline constexpr OptionRule engineOption{.name = "--engine",
                                         .valueName = "ENGINE",
                                         .summary = "claudeCode or codex; required",
                                         .valueKind = WordKind::engine,
                                         .isRequired = true};
inline constexpr OptionRule shapeOption{.name = "--shape",
                                        .valueName = "SHAPE",
                                        .summary = "freeText (default) or itemFields",
                                        .valueKind = WordKind::shape};
static_assert(GenerationRequest::instructionsLimit == 8'000);
inline constexpr OptionRule instructionsOption{
    "--instructions", "TEXT", "instructions for the engine, up to 8,000 characters"};
static_assert(GenerationTimeout::minimum == 5 && GenerationTimeout::maximum == 300 &&
              GenerationTimeout::defaultSeconds == 180);
inline constexpr OptionRule timeoutOption{"--timeout", "SECONDS", "5 to 300 (default 180)"};
inline constexpr OptionRule idOption{"--id", "UUID", "the generation's ID (default: a new one)"};
inline constexpr OptionRule signalOption{
    "--signal", "SIGNAL", "INT, TERM (default) or KILL", 's', WordKind::signal, true};
inline constexpr OptionRule headersOption{"--no-headers", "", "omit the header line"};
inline constexpr OptionRule watchOption{"--watch", "", "redraw every two seconds", 'w'};

CommandResult runVersion(const Arguments& arguments);
CommandResult runCapabilities(const Arguments& arguments);
CommandResult runFreshness(const Arguments& arguments);
CommandResult runPs(const Arguments& arguments);
CommandResult runPorts(const Arguments& arguments);
CommandResult runKill(const Arguments& arguments);
CommandResult runEngineStatus(const Arguments& arguments);
CommandResult runGenerate(const Arguments& arguments);
CommandResult runCancel(const Arguments& arguments);
CommandResult runCall(const Arguments& arguments);
CommandResult runSession(const Arguments& arguments);
CommandResult runDoctor(const Arguments& arguments);

std::span<const Command> allCommands();

/// The command of that name; null if there is none.
const Command* findCommand(std::string_view name);

/// The options of a command, the common ones included; of none, those alone.
std::vector<OptionRule> optionsOf(const Command* command);

/// The names by which --sort takes the columns of `ps` and `ports`; the first is the default.
std::vector<std::string> processColumnNames();
std::vector<std::string> portColumnNames();

/// Prints what the last word may be completed to, a line "WORD\tDESCRIPTION" for each candidate.
/// The shells' completion calls it.
void printCompletions(std::span<const std::string> words);

/// Runs one command line, without the program's name.
ExitStatus runCommandLine(std::span<const std::string> words);

}  // namespace tessaloom
