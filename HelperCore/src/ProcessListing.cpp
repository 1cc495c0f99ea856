#include "HelperCore/ProcessListing.h"

#include <bit>
#include <limits>
#include <utility>

#include "CommandName.h"

namespace tessaloom {

namespace {

RawProcess makeRawProcess(ProcessRecord&& record) {
  std::optional<std::string> tty;
  if (!record.terminal.empty()) tty = std::move(record.terminal);
  return {.pid = record.pid,
          .parentPID = record.parentPID,
          .startSec = record.start.startSec,
          .startUSec = record.start.startUSec,
          .tty = std::move(tty),
          .residentBytes = record.residentBytes,
          .command = commandName(record.name)};
}

/// Truncated toward zero, raised to 0, and at most what the field holds.
std::int64_t wholeSecondsBetween(Instant start, Instant now) {
  constexpr double limit = 9.2e18;
  const double seconds = (now - start).count();
  if (!(seconds > 0)) return 0;
  return seconds < limit ? static_cast<std::int64_t>(seconds)
                         : std::numeric_limits<std::int64_t>::max();
}

}  // namespace

std::vector<RawProcess> listRawProcesses(Kernel& kernel) {
  const std::uint32_t user = kernel.userID();
  std::vector<RawProcess> rows;
  for (ProcessRecord& record : kernel.fetchAllProcessRecords(user)) {
    if (record.owner != user || record.pid < 1) continue;
    rows.push_back(makeRawProcess(std::move(record)));
  }
  return rows;
}

ProcessSample makeProcessSample(const RawProcess& raw, Instant now) {
  const double fraction = static_cast<double>(raw.startUSec) / 1e6;
  const Instant startedAt{Instant::duration{static_cast<double>(raw.startSec) + fraction}};
  return {raw.pid,
          raw.parentPID,
          raw.tty,
          startedAt,
          wholeSecondsBetween(startedAt, now),
          std::bit_cast<std::int64_t>(raw.residentBytes),
          raw.command};
}

}  // namespace tessaloom
