#include "linux/ProcessRecords.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "linux/ProcParser.h"
#include "linux/TerminalName.h"

namespace tessaloom {

namespace {

using Entry = ProcessScan::Entry;

std::optional<std::uint64_t> readResidentBytes(const FileDescriptor& statm) {
  static const auto pageSize = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  std::array<char, 256> buffer;
  const auto pages = parseResidentPages(readStart(statm, buffer));
  if (!pages) return std::nullopt;
  return *pages * pageSize;
}

/// 0 for what cannot be read: a process that is not readable in full still has a row.
std::uint64_t residentBytes(ProcessScan& scan, KnownProcess& known) {
  if (known.statm) {
    if (const auto bytes = readResidentBytes(known.statm)) return *bytes;
    known.forget();  // It was about a process that has ended.
  }
  FileDescriptor statm = scan.proc().open(ProcPath{known.pid, "statm"});
  const auto bytes = readResidentBytes(statm);
  if (bytes && scan.mayKeepOne()) known.statm = std::move(statm);
  return bytes.value_or(0);
}

/// The memory that the threads go on using once the main thread has exited.
std::uint64_t residentBytesOfThreads(const ProcFiles& proc, std::int32_t pid) {
  for (const std::int32_t thread :
       proc.listNumbers(ProcPath{pid, "task"}.text()).value_or(std::vector<std::int32_t>{})) {
    const auto bytes = readResidentBytes(proc.open(ProcPath{thread, "statm"}));
    if (bytes.value_or(0) != 0) return *bytes;
  }
  return 0;
}

void readAnew(ProcessScan& scan, Entry& entry) {
  KnownProcess& known = entry.known;
  entry.isRemembered = false;
  const FileDescriptor stat = scan.open(known);
  if (!stat) return;
  entry.residentBytes = residentBytes(scan, known);
  const ProcessFacts* facts = scan.readFacts(known, stat);
  if (facts != nullptr && facts->isZombie && facts->threads > 1) {
    entry.residentBytes = residentBytesOfThreads(scan.proc(), known.pid);
    scan.readFacts(known, stat);
  }
}

void read(ProcessScan& scan, Entry& entry) {
  KnownProcess& known = entry.known;
  // NOLINTNEXTLINE(bugprone-unchecked-optional-access): what may be reused has facts.
  if (scan.mayBeReused(known) && known.facts->terminal == 0) {
    entry.residentBytes = residentBytes(scan, known);
    entry.isRemembered = known.facts && known.probe.isUnchanged();
  }
  if (!entry.isRemembered) readAnew(scan, entry);
}

/// The first process of the system cannot exit. Another parent is known to be alive when this
/// listing has it, no younger than its child: a younger one got the pid of the real parent, or took
/// the child over from it.
bool isParentAlive(ProcessScan& scan, const ProcessFacts& facts) {
  constexpr std::int32_t firstProcess = 1;
  if (facts.parentPID == firstProcess) return true;
  const Entry* parent = scan.find(facts.parentPID);
  if (parent == nullptr || !parent->known.facts) return false;
  return !parent->known.facts->isZombie && parent->known.facts->startTicks <= facts.startTicks;
}

void readOrphansAgain(ProcessScan& scan) {
  std::vector<Entry*> orphans;
  for (Entry& entry : scan.entries()) {
    // NOLINTNEXTLINE(bugprone-unchecked-optional-access): what is remembered has facts.
    if (entry.isRemembered && !isParentAlive(scan, *entry.known.facts)) orphans.push_back(&entry);
  }
  for (Entry* orphan : orphans) readAnew(scan, *orphan);
}

void readYoungAgain(ProcessScan& scan) {
  std::vector<Entry*> young;
  std::uint64_t lastTick = 0;
  for (Entry& entry : scan.entries()) {
    if (!entry.known.facts || !scan.isYoung(*entry.known.facts)) continue;
    young.push_back(&entry);
    lastTick = std::max(lastTick, entry.known.facts->startTicks);
  }
  if (young.empty()) return;
  scan.clock().sleepPast(lastTick);
  for (Entry* entry : young) {
    // NOLINTNEXTLINE(bugprone-unchecked-optional-access): only what has facts is young.
    const std::uint64_t startTicks = entry->known.facts->startTicks;
    readAnew(scan, *entry);
    // Another start: the process that was found has exited, and the new one came after the listing
    // began.
    const auto& facts = entry->known.facts;
    if (facts && facts->startTicks != startTicks) entry->known.forget();
  }
}

}  // namespace

std::vector<ProcessRecord> readProcessRecords(ProcessScan& scan) {
  scan.forEachEntry([&scan](Entry& entry) { read(scan, entry); });
  readOrphansAgain(scan);
  readYoungAgain(scan);

  std::vector<ProcessRecord> records;
  records.reserve(scan.entries().size());
  for (const Entry& entry : scan.entries()) {
    if (!entry.known.facts) continue;
    const ProcessFacts& facts = *entry.known.facts;
    records.push_back({.pid = entry.known.pid,
                       .parentPID = facts.parentPID,
                       .owner = scan.owner(),
                       .start = scan.clock().startTime(facts.startTicks),
                       .terminal = terminalName(facts.terminal),
                       .residentBytes = entry.residentBytes,
                       .name = facts.name});
  }
  return records;
}

}  // namespace tessaloom
