#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "CallCommands.h"
#include "EventLoop.h"
#include "HelperProtocol/HelperDTOError.h"
#include "HelperProtocol/Methods.h"
#include "HelperProtocol/ProcessMessages.h"
#include "HumanFormat.h"
#include "TLFoundation/ParseNumber.h"
#include "Table.h"

namespace tessaloom {
namespace {

using Console::safeCell;
using Console::safeLine;

constexpr std::chrono::seconds watchInterval{2};

std::string lowered(std::string_view text) {
  std::string result(text);
  std::ranges::transform(result, result.begin(), [](unsigned char character) {
    return static_cast<char>(std::tolower(character));
  });
  return result;
}

/// One column of a listing: its title, by whose lower-case form --sort names it, the text of a
/// record's cell, and the order of two records.
template <class Record>
struct ListingColumn {
  Table::Column column;
  std::string (*cell)(const Record& record);
  bool (*isBefore)(const Record& a, const Record& b);
};

template <auto Key, class Record>
bool isBeforeBy(const Record& a, const Record& b) {
  return std::invoke(Key, a) < std::invoke(Key, b);
}

using enum Table::Alignment;

const std::vector<ListingColumn<ProcessSample>> processColumns{
    {{"PID", right},
     [](const ProcessSample& process) { return std::to_string(process.pid()); },
     isBeforeBy<&ProcessSample::pid, ProcessSample>},
    {{"COMMAND", left, true},
     [](const ProcessSample& process) { return safeCell(process.command()); },
     isBeforeBy<&ProcessSample::command, ProcessSample>},
    {{"MEMORY", right},
     [](const ProcessSample& process) { return humanBytes(process.residentBytes()); },
     // The largest first: that is what a user looks for.
     [](const ProcessSample& a, const ProcessSample& b) {
       return a.residentBytes() > b.residentBytes();
     }},
    {{"AGE", right},
     [](const ProcessSample& process) { return humanAge(process.elapsedSeconds()); },
     isBeforeBy<&ProcessSample::elapsedSeconds, ProcessSample>},
    {{"TERMINAL", left, true},
     [](const ProcessSample& process) { return safeCell(process.tty().value_or("-")); },
     isBeforeBy<&ProcessSample::tty, ProcessSample>},
    {{"PARENT", right},
     [](const ProcessSample& process) { return std::to_string(process.parentPID()); },
     isBeforeBy<&ProcessSample::parentPID, ProcessSample>}};

const std::vector<ListingColumn<PortSample>> portColumns{
    {{"PORT", right},
     [](const PortSample& sample) { return std::to_string(sample.port()); },
     [](const PortSample& a, const PortSample& b) {
       return std::tuple(a.port(), a.transport(), a.address(), a.pid()) <
              std::tuple(b.port(), b.transport(), b.address(), b.pid());
     }},
    {{"PROTOCOL", left},
     [](const PortSample& sample) { return safeCell(sample.transport()); },
     isBeforeBy<&PortSample::transport, PortSample>},
    {{"PROCESS", left, true},
     [](const PortSample& sample) { return safeCell(sample.processName()); },
     isBeforeBy<&PortSample::processName, PortSample>},
    {{"PID", right},
     [](const PortSample& sample) { return std::to_string(sample.pid()); },
     isBeforeBy<&PortSample::pid, PortSample>},
    {{"ADDRESS", left, true},
     [](const PortSample& sample) { return safeCell(sample.address()); },
     isBeforeBy<&PortSample::address, PortSample>}};

bool containsText(std::string_view name, const std::string& text) {
  return lowered(name).find(lowered(text)) != std::string::npos;
}

bool matches(const ProcessSample& process, const std::string& filter) {
  return filter == std::to_string(process.pid()) || containsText(process.command(), filter);
}

bool matches(const PortSample& sample, const std::string& filter) {
  return filter == std::to_string(sample.port()) || filter == std::to_string(sample.pid()) ||
         containsText(sample.processName(), filter);
}

template <class Record>
std::vector<std::string> namesOf(const std::vector<ListingColumn<Record>>& columns) {
  std::vector<std::string> names;
  names.reserve(columns.size());
  for (const auto& column : columns) names.push_back(lowered(column.column.title));
  return names;
}

/// `ps` or `ports`: one method's records, narrowed, sorted, and shown once or again and again.
template <class Record>
class Listing {
 public:
  Listing(const Method& method, const std::vector<ListingColumn<Record>>& columns,
          const Arguments& arguments)
      : method_(method), columns_(columns), arguments_(arguments) {}

  CommandResult run();

 private:
  bool isChosen(const Record& record) const;
  void choose(std::vector<Record>& records) const;
  std::vector<std::string> lines(const std::vector<Record>& records) const;
  void show(std::vector<Record> records) const;
  void redraw(std::vector<Record> records) const;
  ExitStatus watch(Transport& transport) const;

  const Method& method_;
  const std::vector<ListingColumn<Record>>& columns_;
  const Arguments& arguments_;
  const ListingColumn<Record>* order_ = nullptr;
};

template <class Record>
CommandResult Listing<Record>::run() {
  const std::string order =
      arguments_.value("--sort").value_or(lowered(columns_.front().column.title));
  for (const auto& column : columns_) {
    if (lowered(column.column.title) == lowered(order)) order_ = &column;
  }
  if (order_ == nullptr) {
    std::string titles;  // NOLINT(misc-const-correctness): the loop changes it.
    for (const std::string& name : namesOf(columns_)) {
      titles.append(titles.empty() ? "" : ", ").append(name);
    }
    return usageError("unknown column \"" + safeLine(order) + "\": use one of " + titles);
  }
  const bool json = arguments_.has(jsonOption.name);
  if (arguments_.has(watchOption.name) && (json || !Console::canRedrawOutput())) {
    return usageError("--watch needs a terminal that can be redrawn, and no --json");
  }
  const auto transport = openTransport();
  if (!transport) return reportError(transport.error(), json);
  if (arguments_.has(watchOption.name)) return watch(**transport);
  const CallReply reply = callAndWait(**transport, method_.name);
  if (json && reply && (arguments_.has("--sort") || !arguments_.positionals().empty())) {
    auto records = decodeReply<std::vector<Record>>(*reply);
    if (!records) return reportUnreadableReply(records.error(), json);
    choose(*records);
    Console::printJSON(HelperCoding::makeEncoder().encode(*records));
    return ExitStatus::done;
  }
  return showReply<std::vector<Record>>(
      reply, arguments_, [this](std::vector<Record> records) { show(std::move(records)); });
}

template <class Record>
bool Listing<Record>::isChosen(const Record& record) const {
  const auto& filters = arguments_.positionals();
  return filters.empty() || std::ranges::any_of(filters, [&](const std::string& filter) {
           return matches(record, filter);
         });
}

template <class Record>
void Listing<Record>::choose(std::vector<Record>& records) const {
  std::erase_if(records, [this](const Record& record) { return !isChosen(record); });
  std::ranges::sort(records, [this](const Record& a, const Record& b) {
    if (order_->isBefore(a, b) || order_->isBefore(b, a)) return order_->isBefore(a, b);
    return columns_.front().isBefore(a, b);
  });
}

template <class Record>
std::vector<std::string> Listing<Record>::lines(const std::vector<Record>& records) const {
  std::vector<Table::Column> titles;
  titles.reserve(columns_.size());
  for (const auto& column : columns_) titles.push_back(column.column);
  Table table(titles);
  for (const Record& record : records) {
    std::vector<std::string> cells;
    cells.reserve(columns_.size());
    for (const auto& column : columns_) cells.push_back(column.cell(record));
    table.addRow(std::move(cells));
  }
  std::vector<std::string> all = table.lines(Console::outputWidth(), Console::ellipsis());
  all.front() = Console::styledForOutput(Console::Style::bold, all.front());
  if (arguments_.has(headersOption.name)) all.erase(all.begin());
  return all;
}

template <class Record>
void Listing<Record>::show(std::vector<Record> records) const {
  choose(records);
  for (const std::string& line : lines(records)) Console::print(line + "\n");
}

// Draws over the previous lines instead of clearing the terminal first, which would flicker.
template <class Record>
void Listing<Record>::redraw(std::vector<Record> records) const {
  choose(records);
  std::vector<std::string> all = lines(records);
  all.resize(std::min(all.size(), Console::outputHeight() - 1));
  std::string screen = "\033[H";
  // Erased first: after a line that fills it, the cursor is still on its last column.
  for (const std::string& line : all) screen += "\033[2K" + line + "\n";
  Console::print(screen + "\033[J");
}

template <class Record>
ExitStatus Listing<Record>::watch(Transport& transport) const {
  while (true) {
    const CallReply reply = callAndWait(transport, method_.name);
    if (!reply) return reportError(reply.error(), false);
    auto records = decodeReply<std::vector<Record>>(*reply);
    if (!records) return reportUnreadableReply(records.error(), false);
    redraw(*std::move(records));
    if (Console::flushOutput() != 0) return ExitStatus::done;
    EventLoop(transport).run([] { return false; }, EventLoop::Clock::now() + watchInterval);
  }
}

std::expected<ProcessID, UsageError> readPID(const std::string& text) {
  const auto number = parseNumber<std::int32_t>(text);
  if (number && *number > 0) return ProcessID(*number);
  return usageError("process ID \"" + safeLine(text) + "\" is not a number from 1 to 2147483647");
}

std::expected<Signal, UsageError> readSignal(const std::string& text) {
  std::string name = lowered(text);
  if (name.starts_with("sig")) name.erase(0, 3);
  if (name == "int" || name == "interrupt" || name == "2") return Signal::interrupt;
  if (name == "term" || name == "terminate" || name == "15") return Signal::terminate;
  if (name == "kill" || name == "9") return Signal::kill;
  return usageError("unknown signal \"" + safeLine(text) + "\": use INT, TERM or KILL");
}

ExitStatus sendSignal(Transport& transport, ProcessID pid, Signal signal,
                      const Arguments& arguments) {
  const Bytes body = HelperCoding::makeEncoder().encode(KillRequest{pid, signal});
  return showReply<KillResult>(
      callAndWait(transport, methodNamed("KillProcess").name, body), arguments,
      [pid](const KillResult& result) {
        const std::string target = "process " + std::to_string(pid.value());
        if (result.succeeded) {
          Console::print("Sent the signal to " + target + ".\n");
        } else {
          Console::printError(target + " was not signaled: " +
                                  safeLine(result.message.value_or("the helper refused")),
                              "See which processes can be signaled: tessaloom-helperctl ps");
        }
      });
}

}  // namespace

std::vector<std::string> processColumnNames() {
  return namesOf(processColumns);
}

std::vector<std::string> portColumnNames() {
  return namesOf(portColumns);
}

CommandResult runPs(const Arguments& arguments) {
  return Listing<ProcessSample>(methodNamed("ListProcesses"), processColumns, arguments).run();
}

CommandResult runPorts(const Arguments& arguments) {
  return Listing<PortSample>(methodNamed("ListListeningPorts"), portColumns, arguments).run();
}

CommandResult runKill(const Arguments& arguments) {
  std::vector<ProcessID> targets;
  for (const std::string& word : arguments.positionals()) {
    const auto pid = readPID(word);
    if (!pid) return std::unexpected(pid.error());
    targets.push_back(*pid);
  }
  const auto signal = readSignal(arguments.value(signalOption.name).value_or("TERM"));
  if (!signal) return std::unexpected(signal.error());

  const bool json = arguments.has(jsonOption.name);
  const auto transport = openTransport();
  if (!transport) return reportError(transport.error(), json);
  // The helper signals only what this very connection has listed.
  const CallReply listing = callAndWait(**transport, methodNamed("ListProcesses").name);
  if (!listing) return reportError(listing.error(), json);
  ExitStatus worst = ExitStatus::done;
  for (const ProcessID pid : targets) {
    worst = std::max(worst, sendSignal(**transport, pid, *signal, arguments));
    if (worst == ExitStatus::unreachable) break;
  }
  return worst;
}

}  // namespace tessaloom
