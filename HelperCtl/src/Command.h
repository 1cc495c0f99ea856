#pragma once

#include <array>
#include <cstddef>
#include <expected>
#include <span>
#include <string>
#include <string_view>

#include "Arguments.h"
#include "Console.h"

namespace tessaloom {

/// How a command ended, or what was wrong with its command line.
using CommandResult = std::expected<ExitStatus, UsageError>;

/// One command of the client. The table of all of them is what dispatch, help and completion know.
struct Command {
  std::string_view name;
  std::string_view usage;               ///< What follows the name, as in "PID [--signal SIGNAL]".
  std::string_view summary;             ///< One short line.
  std::string_view details;             ///< Shown by COMMAND --help; may be empty.
  std::span<const OptionRule> options;  ///< Besides those that every command takes.
  std::size_t minimumPositionals;
  std::size_t maximumPositionals;
  CommandResult (*run)(const Arguments& arguments);
};

/// Options that every command takes, also before the command's name.
inline constexpr OptionRule jsonOption{"--json", "", "print the reply's body unchanged"};
inline constexpr OptionRule helpOption{"--help", "", "show this help"};
inline constexpr OptionRule versionOption{"--version", "", "show the version of this program"};
inline constexpr std::array commonOptions{jsonOption, helpOption, versionOption};

inline constexpr OptionRule signalOption{"--signal", "SIGNAL",
                                         "interrupt, terminate (default) or kill"};

inline constexpr OptionRule engineOption{"--engine", "ENGINE", "claudeCode or codex; required"};
inline constexpr OptionRule shapeOption{"--shape", "SHAPE", "freeText (default) or itemFields"};
inline constexpr OptionRule instructionsOption{
    "--instructions", "TEXT", "what the engine should heed, up to 8,000 characters"};
inline constexpr OptionRule timeoutOption{"--timeout", "SECONDS", "5 to 300 (default 180)"};
inline constexpr OptionRule idOption{"--id", "UUID", "the generation's id (default a new one)"};

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

/// Runs one command line, without the program's name.
ExitStatus runCommandLine(std::span<const std::string> words);

}  // namespace tessaloom
