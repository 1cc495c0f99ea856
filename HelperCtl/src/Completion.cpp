#include <algorithm>
#include <chrono>
#include <iterator>
#include <string>
#include <vector>

#include "Client.h"
#include "Command.h"
#include "HelperProtocol/GenerationEnums.h"
#include "HelperProtocol/Methods.h"
#include "HelperProtocol/ProcessMessages.h"

namespace tessaloom {
namespace {

struct Candidate {
  std::string word;
  std::string description = {};  // NOLINT(readability-redundant-member-init): may be left out.
};
using Candidates = std::vector<Candidate>;

/// How long a shell's completion may wait for the helper.
constexpr std::chrono::seconds timeLimit{2};

Candidates plain(const std::vector<std::string>& words) {
  Candidates candidates;
  for (const std::string& word : words) candidates.push_back({word});
  return candidates;
}

/// The records that a method lists; none where the helper does not answer.
template <class Record>
std::vector<Record> listed(const Method& method) {
  const CallReply reply = callOnce(method.name, std::nullopt, timeLimit);
  if (!reply) return {};
  return decodeReply<std::vector<Record>>(*reply).value_or(std::vector<Record>());
}

Candidates processCandidates(bool withNames) {
  Candidates candidates;
  for (const auto& process : listed<ProcessSample>(methodNamed("ListProcesses"))) {
    const std::string name = Console::safeLine(process.command());
    candidates.push_back({std::to_string(process.pid()), name});
    if (withNames) candidates.push_back({name});
  }
  return candidates;
}

Candidates portCandidates() {
  Candidates candidates;
  for (const auto& port : listed<PortSample>(methodNamed("ListListeningPorts"))) {
    const std::string name = Console::safeLine(port.processName());
    candidates.push_back({std::to_string(port.port()), name});
    candidates.push_back({name});
  }
  return candidates;
}

Candidates valuesOf(WordKind kind) {
  Candidates candidates;
  switch (kind) {
    case WordKind::text:
      return {};
    case WordKind::command:
      for (const Command& command : allCommands()) {
        candidates.push_back({std::string(command.name), std::string(command.summary)});
      }
      candidates.push_back({"help", "show help"});
      return candidates;
    case WordKind::engine:
      for (const auto engine : allGenerationEngineIDs) {
        candidates.push_back({std::string(wireValue(engine))});
      }
      return candidates;
    case WordKind::shape:
      for (const auto shape : allGenerationShapes) {
        candidates.push_back({std::string(wireValue(shape))});
      }
      return candidates;
    case WordKind::signal:
      return plain({"INT", "TERM", "KILL"});
    case WordKind::method:
      for (const Method& method : methods) candidates.push_back({method.name});
      return candidates;
    case WordKind::process:
      return processCandidates(false);
    case WordKind::processName:
      return processCandidates(true);
    case WordKind::port:
      return portCandidates();
    case WordKind::processColumn:
      return plain(processColumnNames());
    case WordKind::portColumn:
      return plain(portColumnNames());
  }
  return candidates;
}

Candidates optionCandidates(std::span<const OptionRule> rules) {
  Candidates candidates;
  for (const OptionRule& rule : rules) {
    candidates.push_back({std::string(rule.name), std::string(rule.summary)});
  }
  return candidates;
}

/// Candidates for the positional at `index`.
Candidates positionalCandidates(const Command& command, std::size_t index) {
  if (command.positionals.empty()) return {};
  const bool isOpen = command.positionals.back().repeats;
  if (index >= command.positionals.size() && !isOpen) return {};
  return valuesOf(command.positionals[std::min(index, command.positionals.size() - 1)].kind);
}

Candidates candidatesFor(std::span<const std::string> before, const std::string& current) {
  const Command* command = nullptr;
  bool isHelp = false;
  bool awaitsValue = false;  // Whether the next word is the value of an option.
  WordKind valueKind = WordKind::text;
  bool optionsEnded = false;
  std::size_t positionals = 0;
  for (const std::string& word : before) {
    if (awaitsValue) {
      awaitsValue = false;
    } else if (!optionsEnded && word == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && word.size() > 1 && word.front() == '-') {
      const auto rules = optionsOf(command);
      const OptionRule* rule = findOption(rules, word);
      const bool hasValue =
          word.find('=') != std::string::npos || (word[1] != '-' && word.size() > 2);
      if (rule == nullptr || rule->valueName.empty() || hasValue) continue;
      awaitsValue = true;
      valueKind = rule->valueKind;
    } else if (command == nullptr && !isHelp && word == "help") {
      isHelp = true;
    } else if (command == nullptr && !isHelp) {
      command = findCommand(word);
      if (command == nullptr) return {};
    } else {
      ++positionals;
    }
  }
  if (awaitsValue) return valuesOf(valueKind);
  if (!optionsEnded && current.starts_with('-')) {
    const auto rules = optionsOf(command);
    const std::size_t equals = current.find('=');
    if (equals == std::string::npos) return optionCandidates(rules);
    const OptionRule* rule = findOption(rules, current);
    Candidates values = rule == nullptr ? Candidates() : valuesOf(rule->valueKind);
    for (Candidate& value : values) value.word.insert(0, current.substr(0, equals + 1));
    return values;
  }
  if (isHelp && positionals > 0) return {};
  if (command == nullptr) return valuesOf(WordKind::command);
  return positionalCandidates(*command, positionals);
}

}  // namespace

void printCompletions(std::span<const std::string> words) {
  if (words.empty()) return;
  const std::string& current = words.back();
  for (const Candidate& candidate : candidatesFor(words.first(words.size() - 1), current)) {
    if (!candidate.word.starts_with(current)) continue;
    Console::print(candidate.word + "\t" + candidate.description + "\n");
  }
}

}  // namespace tessaloom
