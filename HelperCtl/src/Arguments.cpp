#include "Arguments.h"

#include <algorithm>

namespace tessaloom {
namespace {

const OptionRule* findRule(std::span<const OptionRule> rules, std::string_view name) {
  const auto found = std::ranges::find(rules, name, &OptionRule::name);
  return found == rules.end() ? nullptr : &*found;
}

std::unexpected<UsageError> usageError(std::string message) {
  return std::unexpected(UsageError{std::move(message)});
}

}  // namespace

std::expected<Arguments, UsageError> Arguments::parse(std::span<const std::string> words,
                                                      std::span<const OptionRule> rules) {
  Arguments parsed;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    if (word == "--") {
      parsed.positionals_.insert(parsed.positionals_.end(),
                                 words.begin() + static_cast<long>(i) + 1, words.end());
      break;
    }
    if (word.size() < 2 || word.front() != '-') {
      parsed.positionals_.push_back(word);
      continue;
    }
    const std::size_t equals = word.find('=');
    const std::string name = word.substr(0, equals);
    const OptionRule* rule = findRule(rules, name);
    if (rule == nullptr) return usageError("unknown option \"" + name + "\"");
    if (rule->valueName.empty()) {
      if (equals != std::string::npos) return usageError(name + " takes no value");
      parsed.options_[name] = "";
    } else if (equals != std::string::npos) {
      parsed.options_[name] = word.substr(equals + 1);
    } else if (i + 1 < words.size()) {
      parsed.options_[name] = words[++i];
    } else {
      return usageError(name + " needs a value, " + std::string(rule->valueName));
    }
  }
  return parsed;
}

std::optional<std::string> Arguments::value(std::string_view option) const {
  const auto found = options_.find(option);
  if (found == options_.end()) return std::nullopt;
  return found->second;
}

}  // namespace tessaloom
