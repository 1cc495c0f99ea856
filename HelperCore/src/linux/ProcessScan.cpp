#include "linux/ProcessScan.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "linux/ProcParser.h"

namespace tessaloom {

namespace {

std::size_t countDescriptors(const std::vector<KnownProcess>& known) {
  std::size_t count = 0;
  for (const KnownProcess& each : known) count += (each.statm ? 1U : 0U) + (each.probe ? 1U : 0U);
  return count;
}

std::int32_t pidOf(const ProcessScan::Entry& entry) {
  return entry.known.pid;
}

}  // namespace

ProcessScan::ProcessScan(const FileDescriptor& procDirectory, const BootClock& clock,
                         std::uint32_t owner, std::chrono::nanoseconds idleAge,
                         std::vector<KnownProcess> known, bool keep)
    : proc_(procDirectory),
      clock_(clock),
      owner_(owner),
      idleAge_(idleAge),
      keep_(keep),
      startedAt_(IdleProbe::Clock::now()),
      firstTick_(clock.currentTick()),
      budget_(countDescriptors(known)) {
  const auto pids = proc_.listNumbers(".");
  if (!pids) return;
  entries_.reserve(pids->size());
  auto next = known.begin();
  for (const std::int32_t pid : *pids) {
    while (next != known.end() && next->pid < pid) ++next;
    Entry& entry = entries_.emplace_back();
    if (next != known.end() && next->pid == pid) entry.known = std::move(*next);
    entry.known.pid = pid;
  }
}

ProcessScan::Entry* ProcessScan::find(std::int32_t pid) {
  const auto found = std::ranges::lower_bound(entries_, pid, {}, pidOf);
  return found != entries_.end() && pidOf(*found) == pid ? &*found : nullptr;
}

FileDescriptor ProcessScan::open(KnownProcess& known) {
  // Most processes of a machine are someone else's: asked first, because it is the cheapest.
  FileDescriptor stat;
  if (proc_.owner(known.pid) == owner_) stat = proc_.open(ProcPath{known.pid, "stat"});
  if (!stat || !proc_.isOwnedBy(owner_, known.pid, stat)) {
    known.forget();
    return {};
  }
  restartProbe(known);
  return stat;
}

void ProcessScan::restartProbe(KnownProcess& known) {
  if (known.probe && !isExpired(known) && known.probe.isUnchanged()) return;
  known.sockets.reset();  // The facts are read again in any case.
  if (known.probe && !known.probe.restart()) {
    known.forget();  // All of it was about a process that has ended.
  } else if (!known.probe && known.isFromEarlier && mayKeepOne()) {
    known.probe = IdleProbe(proc_, known.pid);
  }
}

const ProcessFacts* ProcessScan::readFacts(KnownProcess& known, const FileDescriptor& stat) const {
  std::array<char, 1024> buffer;
  const auto parsed = parseProcessStat(readStart(stat, buffer));
  if (!parsed) {
    known.forget();
    return nullptr;
  }
  known.facts = ProcessFacts{.name = std::string{parsed->name},
                             .startTicks = parsed->startTicks,
                             .parentPID = parsed->parentPID,
                             .terminal = parsed->terminal,
                             .threads = parsed->threads,
                             .isKernelThread = parsed->isKernelThread,
                             .isZombie = parsed->state == 'Z' || parsed->state == 'X'};
  return &*known.facts;
}

std::vector<KnownProcess> ProcessScan::takeKnown() {
  std::vector<KnownProcess> known;
  known.reserve(static_cast<std::size_t>(
      std::ranges::count_if(entries_, [](const Entry& entry) { return bool(entry.known.facts); })));
  for (Entry& entry : entries_) {
    if (!entry.known.facts) continue;
    // Whether nothing but the process itself, and the end of its parent, changes what was read.
    const bool staysTrue = entry.known.probe && entry.known.facts->threads == 1;
    if (!staysTrue || entry.sharesDescriptors) entry.known.sockets.reset();
    if (!staysTrue) entry.known.facts.reset();
    entry.known.isFromEarlier = true;
    known.push_back(std::move(entry.known));
  }
  return known;
}

}  // namespace tessaloom
