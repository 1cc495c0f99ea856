#pragma once

#include <cstddef>
#include <expected>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tessaloom {

/// One option that a command accepts.
struct OptionRule {
  std::string_view name;       ///< With its dashes, as in "--timeout".
  std::string_view valueName;  ///< As in "SECONDS"; empty for an option without a value.
  std::string_view summary;
};

/// What a person got wrong about the command line, as a sentence.
struct UsageError {
  std::string message;
};

/// A command's words, sorted into options and positionals.
class Arguments {
 public:
  /// Options may stand before and after positionals; "--" ends them and "-" is a positional. A
  /// value follows its option as the next word, whatever that is, or after "=". Of an option given
  /// twice the last counts.
  static std::expected<Arguments, UsageError> parse(std::span<const std::string> words,
                                                    std::span<const OptionRule> rules);

  const std::vector<std::string>& positionals() const { return positionals_; }
  bool has(std::string_view option) const { return options_.contains(option); }
  std::optional<std::string> value(std::string_view option) const;

 private:
  std::vector<std::string> positionals_;
  std::map<std::string, std::string, std::less<>> options_;
};

}  // namespace tessaloom
