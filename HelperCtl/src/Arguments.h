#pragma once

#include <cstdint>
#include <expected>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tessaloom {

/// What a word of the command line names, for completion.
enum class WordKind : std::uint8_t {
  text,
  command,
  engine,
  shape,
  signal,
  method,
  process,      ///< A process ID.
  processName,  ///< A process ID or a command name.
  port,         ///< A port, a process ID or a process name.
  processColumn,
  portColumn,
};

/// One option that a command accepts.
struct OptionRule {
  std::string_view name;       ///< With its dashes, as in "--timeout".
  std::string_view valueName;  ///< As in "SECONDS"; empty for an option without a value.
  std::string_view summary;
  char letter = 0;  ///< Of the short form, as in "-s"; 0 for none.
  WordKind valueKind = WordKind::text;
  /// A word of one dash that is not an option, or that begins with "sig", is this one's value, as
  /// in "kill -9".
  bool takesDashedWord = false;
  bool isRequired = false;  ///< Shown in the command's usage; the command itself refuses without.
};

/// What is wrong with the command line, as a sentence for the user.
struct UsageError {
  std::string message;
};

std::unexpected<UsageError> usageError(std::string message);

/// A command's words, sorted into options and positionals.
class Arguments {
 public:
  /// Options may precede or follow positionals; "--" ends them and "-" is a positional. A value
  /// follows its option as the next word, whatever that is, or after "=", or directly after the
  /// letter of a short form. Of an option given twice the last counts.
  static std::expected<Arguments, UsageError> parse(std::span<const std::string> words,
                                                    std::span<const OptionRule> rules);

  const std::vector<std::string>& positionals() const { return positionals_; }
  bool has(std::string_view option) const { return options_.contains(option); }
  std::optional<std::string> value(std::string_view option) const;

 private:
  std::vector<std::string> positionals_;
  std::map<std::string, std::string, std::less<>> options_;
};

/// The option that a word such as "--timeout=7" or "-s" begins; null if there is none.
const OptionRule* findOption(std::span<const OptionRule> rules, std::string_view word);

/// `; did you mean "NAME"?` for the candidate that resembles a mistyped word most; empty if none
/// does.
std::string suggestion(std::string_view word, std::span<const std::string_view> candidates);

}  // namespace tessaloom
