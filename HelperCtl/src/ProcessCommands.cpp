#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <system_error>
#include <tuple>
#include <vector>

#include "CallCommands.h"
#include "HelperProtocol/HelperDTOError.h"
#include "HelperProtocol/Methods.h"
#include "HelperProtocol/ProcessMessages.h"
#include "HumanFormat.h"
#include "Table.h"

namespace tessaloom {
namespace {

using console::safeLine;

void printTable(const Table& table) {
  const std::vector<std::string> lines = table.lines(console::outputWidth());
  console::print(console::styledForOutput(console::Style::bold, lines.front()) + "\n");
  for (std::size_t i = 1; i < lines.size(); ++i) console::print(lines[i] + "\n");
}

void showProcesses(std::vector<ProcessSample> processes) {
  using enum Table::Alignment;
  std::ranges::sort(processes, {}, &ProcessSample::pid);
  Table table({{"PID", right},
               {"COMMAND", left, true},
               {"MEMORY", right},
               {"AGE", right},
               {"TERMINAL", left, true},
               {"PARENT", right}});
  for (const ProcessSample& process : processes) {
    table.addRow({std::to_string(process.pid()), safeLine(process.command()),
                  humanBytes(process.residentBytes()), humanAge(process.elapsedSeconds()),
                  safeLine(process.tty().value_or("-")), std::to_string(process.parentPID())});
  }
  printTable(table);
}

void showPorts(std::vector<PortSample> ports) {
  using enum Table::Alignment;
  std::ranges::sort(ports, {}, [](const PortSample& sample) {
    return std::tuple(sample.port(), sample.transport(), sample.address(), sample.pid());
  });
  Table table({{"PORT", right},
               {"PROTOCOL", left},
               {"PROCESS", left, true},
               {"PID", right},
               {"ADDRESS", left, true}});
  for (const PortSample& sample : ports) {
    table.addRow({std::to_string(sample.port()), safeLine(sample.transport()),
                  safeLine(sample.processName()), std::to_string(sample.pid()),
                  safeLine(sample.address())});
  }
  printTable(table);
}

std::expected<ProcessID, UsageError> readPID(const std::string& text) {
  std::int32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value <= 0) {
    return std::unexpected(
        UsageError{"\"" + safeLine(text) + "\" is no process id, which is a number above 0"});
  }
  return ProcessID(value);
}

std::expected<Signal, UsageError> readSignal(const std::string& name) {
  if (name == "interrupt") return Signal::interrupt;
  if (name == "terminate") return Signal::terminate;
  if (name == "kill") return Signal::kill;
  return std::unexpected(
      UsageError{"unknown signal \"" + safeLine(name) + "\": use interrupt, terminate or kill"});
}

}  // namespace

CommandResult runPs(const Arguments& arguments) {
  return showReply<std::vector<ProcessSample>>(callOnce(methodNamed("ListProcesses").name),
                                               arguments, showProcesses);
}

CommandResult runPorts(const Arguments& arguments) {
  return showReply<std::vector<PortSample>>(callOnce(methodNamed("ListListeningPorts").name),
                                            arguments, showPorts);
}

CommandResult runKill(const Arguments& arguments) {
  const auto pid = readPID(arguments.positionals().front());
  if (!pid) return std::unexpected(pid.error());
  const auto signal = readSignal(arguments.value(signalOption.name).value_or("terminate"));
  if (!signal) return std::unexpected(signal.error());

  const bool json = arguments.has(jsonOption.name);
  const auto transport = openTransport();
  if (!transport) return reportError(transport.error(), json);
  // The helper signals only what this very connection has listed.
  const CallReply listing = callAndWait(**transport, methodNamed("ListProcesses").name);
  if (!listing) return reportError(listing.error(), json);
  const Bytes body = HelperCoding::makeEncoder().encode(KillRequest{*pid, *signal});
  return showReply<KillResult>(
      callAndWait(**transport, methodNamed("KillProcess").name, body), arguments,
      [&](const KillResult& result) {
        const std::string target = "process " + std::to_string(pid->value());
        if (result.succeeded) {
          console::print("Signalled " + target + ".\n");
        } else {
          console::printError(target + " was not signalled: " +
                                  safeLine(result.message.value_or("the helper refused")),
                              "See which processes can be signalled: tessaloom-helperctl ps");
        }
      });
}

}  // namespace tessaloom
