#include "Arguments.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <numeric>
#include <utility>

namespace tessaloom {
namespace {

bool isOption(std::string_view word) {
  return word.size() > 1 && word.front() == '-';
}

bool isShort(std::string_view word) {
  return isOption(word) && word[1] != '-';
}

/// Whether a word as in "-SIGTERM" names a signal in full, in upper or lower case.
bool hasSignalPrefix(std::string_view word) {
  return std::ranges::equal(word.substr(1, 3), std::string_view("sig"), {},
                            [](unsigned char c) { return std::tolower(c); });
}

std::unexpected<UsageError> unknownOption(std::string_view word,
                                          std::span<const OptionRule> rules) {
  const std::string_view name = word.substr(0, word.find('='));
  std::vector<std::string_view> names;
  std::ranges::transform(rules, std::back_inserter(names), &OptionRule::name);
  return usageError(
      "unknown option \"" + std::string(name) + "\"" +
      (name.contains(' ') ? "; put -- before a text that begins with -" : suggestion(name, names)));
}

/// How many characters have to be inserted, deleted or replaced to make one text of the other.
std::size_t editDistance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  // NOLINTNEXTLINE(modernize-use-ranges): g++ 12 has no std::ranges::iota.
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::unexpected<UsageError> usageError(std::string message) {
  return std::unexpected(UsageError{std::move(message)});
}

const OptionRule* findOption(std::span<const OptionRule> rules, std::string_view word) {
  const std::string_view name = word.substr(0, word.find('='));
  const auto found = std::ranges::find_if(rules, [&](const OptionRule& rule) {
    return isShort(word) ? rule.letter == word[1] : rule.name == name;
  });
  return found == rules.end() ? nullptr : &*found;
}

std::string suggestion(std::string_view word, std::span<const std::string_view> candidates) {
  std::string_view best;
  std::size_t bestDistance = std::max<std::size_t>(word.size() / 3, 1) + 1;
  for (const std::string_view candidate : candidates) {
    const std::size_t distance = editDistance(word, candidate);
    if (distance < bestDistance) {
      best = candidate;
      bestDistance = distance;
    }
  }
  return best.empty() ? std::string() : "; did you mean \"" + std::string(best) + "\"?";
}

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
    if (!isOption(word)) {
      parsed.positionals_.push_back(word);
      continue;
    }
    const OptionRule* rule = findOption(rules, word);
    std::optional<std::string> attached;
    if (isShort(word)) {
      if (rule != nullptr && word.size() > 2) attached = word.substr(2);
      // "-hup" is not "-h", which takes no value, nor is "-sigterm" the option "-s".
      const bool isShortForm = rule != nullptr && !(attached && rule->valueName.empty());
      const auto dashed = std::ranges::find(rules, true, &OptionRule::takesDashedWord);
      if (dashed != rules.end() && (!isShortForm || hasSignalPrefix(word))) {
        rule = &*dashed;
        attached = word.substr(1);
      }
    } else if (const std::size_t equals = word.find('='); equals != std::string::npos) {
      attached = word.substr(equals + 1);
    }
    if (rule == nullptr) return unknownOption(word, rules);
    const std::string name(rule->name);
    if (rule->valueName.empty()) {
      if (attached && isShort(word)) {
        if (word.contains(' ')) return unknownOption(word, rules);
        return usageError("unknown option \"" + word + "\"; write short options one by one");
      }
      if (attached) return usageError(name + " takes no value");
      parsed.options_[name] = "";
    } else if (attached) {
      parsed.options_[name] = *attached;
    } else if (i + 1 < words.size()) {
      parsed.options_[name] = words[++i];
    } else {
      return usageError("missing value: " + name + " " + std::string(rule->valueName));
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
