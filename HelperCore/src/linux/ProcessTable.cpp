#include "linux/ProcessTable.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <string>
#include <utility>

#include "linux/DescriptorBudget.h"
#include "linux/Parallel.h"
#include "linux/ProcFiles.h"
#include "linux/ProcText.h"
#include "linux/TerminalName.h"

namespace tessaloom::linux_kernel {

/// One listing: the state that its parts on several threads share.
class ProcessTable::Pass {
 public:
  Pass(const ProcessTable& table, std::uint32_t owner, std::vector<KeptProcess>* kept,
       bool keepFiles)
      : procDirectory_(table.procDirectory_.get()),
        clock_(table.clock_),
        settled_(table.settled_),
        startedAt_(RestWitness::Clock::now()),
        owner_(owner),
        firstTick_(clock_.currentTick()),
        kept_(kept),
        keepFiles_(keepFiles && kept != nullptr),
        budget_(kept != nullptr ? kept->size() * filesPerProcess : 0) {}

  Listing run();

 private:
  static constexpr std::size_t filesPerProcess = 3;

  struct Slot {
    std::optional<Row> row;
    bool isRemembered = false;  ///< The row is an earlier one, with the resident size of now.
    OpenFiles files;
  };

  void readPart(std::size_t begin, std::size_t end);
  std::optional<Row> remember(const OpenFiles& files) const;
  std::optional<Row> readKept(std::int32_t pid, OpenFiles& files) const;
  std::optional<Row> readAnew(std::int32_t pid, OpenFiles& files);
  std::optional<Row> readOpen(std::int32_t pid, const OpenFiles& files) const;
  OpenFiles openFiles(std::int32_t pid);
  bool isOwn(std::int32_t pid) const { return processOwner(procDirectory_, pid) == owner_; }
  bool isYoung(const Row& row) const { return row.startTicks >= firstTick_; }
  std::uint64_t readResidentBytes(const OpenFiles& files) const;
  const Row* findRow(std::int32_t pid) const;
  bool isParentStillThere(const Row& row, std::uint64_t parentStartTicks) const;
  void readOrphansAgain();
  void settleYoungRows();
  void keepOpenFiles();
  void keepRow(Slot& slot) const;

  const int procDirectory_;
  const StartClock& clock_;
  const std::chrono::nanoseconds settled_;
  const RestWitness::Clock::time_point startedAt_;
  const std::uint32_t owner_;
  const std::uint64_t firstTick_;
  std::vector<KeptProcess>* const kept_;
  const bool keepFiles_;
  DescriptorBudget budget_;
  std::atomic<bool> ranOut_ = false;
  std::vector<std::int32_t> pids_;
  std::vector<Slot> slots_;  ///< One for each pid.
};

ProcessTable::Listing ProcessTable::Pass::run() {
  const FileDescriptor directory = openAt(procDirectory_, ".", O_DIRECTORY);
  if (!directory) return {.records = {}, .ranOutOfDescriptors = outOfDescriptors()};
  auto pids = listNumbers(directory.get());
  if (!pids) return {};
  pids_ = *std::move(pids);
  slots_.resize(pids_.size());
  forEachPart(pids_.size(), [&](std::size_t begin, std::size_t end) { readPart(begin, end); });
  readOrphansAgain();
  settleYoungRows();
  if (kept_ != nullptr) keepOpenFiles();

  Listing listing{.records = {}, .ranOutOfDescriptors = ranOut_};
  for (Slot& slot : slots_) {
    if (slot.row) listing.records.push_back(std::move(slot.row->record));
  }
  return listing;
}

void ProcessTable::Pass::readPart(std::size_t begin, std::size_t end) {
  std::vector<KeptProcess> none;
  std::vector<KeptProcess>& kept = kept_ != nullptr ? *kept_ : none;
  auto next = std::ranges::lower_bound(kept, pids_[begin], {}, &KeptProcess::pid);
  for (std::size_t i = begin; i < end; ++i) {
    const std::int32_t pid = pids_[i];
    Slot& slot = slots_[i];
    while (next != kept.end() && next->pid < pid) ++next;
    if (next != kept.end() && next->pid == pid) {
      slot.files = std::move(next->files);
      slot.row = remember(slot.files);
      slot.isRemembered = slot.row.has_value();
      if (!slot.row) slot.row = readKept(pid, slot.files);
    }
    if (!slot.row) slot.row = readAnew(pid, slot.files);
  }
}

/// Nothing when the process may have changed.
std::optional<ProcessTable::Row> ProcessTable::Pass::remember(const OpenFiles& files) const {
  if (!files.row || files.row->record.owner != owner_) return std::nullopt;
  if (!files.witness.isSettled(startedAt_, settled_)) return std::nullopt;
  const std::uint64_t residentBytes = readResidentBytes(files);
  if (!files.witness.findsNothing()) return std::nullopt;
  std::optional<Row> row = files.row;
  row->record.residentBytes = residentBytes;
  return row;
}

/// Nothing, and the files closed, when their process is gone or not the user's any more.
std::optional<ProcessTable::Row> ProcessTable::Pass::readKept(std::int32_t pid,
                                                              OpenFiles& files) const {
  // A process that is read a second time is worth a witness; one that has run needs another moment.
  if (!files.witness.file()) {
    files.witness = RestWitness(procDirectory_, pid);
  } else if (!files.witness.findsNothing()) {
    files.witness.startAgain();
  }
  auto row = isOwn(pid) ? readOpen(pid, files) : std::nullopt;
  if (!row) files = {};
  return row;
}

std::optional<ProcessTable::Row> ProcessTable::Pass::readAnew(std::int32_t pid, OpenFiles& files) {
  // Most processes of a machine are someone else's: asked first, because it is the cheapest.
  if (!isOwn(pid)) return std::nullopt;
  OpenFiles opened = openFiles(pid);
  if (!opened.stat || !isOwnedBy(owner_, procDirectory_, pid, opened.stat)) return std::nullopt;
  auto row = readOpen(pid, opened);
  const bool isWorthKeeping = row && opened.statm && !isYoung(*row);
  if (isWorthKeeping && keepFiles_ && budget_.take(filesPerProcess)) files = std::move(opened);
  return row;
}

/// All of a row concerns the process that `files.stat` was opened for: it is read last, and as long
/// as that succeeds the process holds its pid, so that everything looked up by pid since was its.
std::optional<ProcessTable::Row> ProcessTable::Pass::readOpen(std::int32_t pid,
                                                              const OpenFiles& files) const {
  std::array<char, 1024> buffer;
  const std::uint64_t residentBytes = readResidentBytes(files);
  auto stat = parseProcessStat(readStart(files.stat.get(), buffer));
  if (!stat) return std::nullopt;
  return Row{.record = {.pid = pid,
                        .parentPID = stat->parentPID,
                        .owner = owner_,
                        .start = clock_.startTime(stat->startTicks),
                        .terminal = terminalName(stat->terminal),
                        .residentBytes = residentBytes,
                        .name = std::string{stat->name}},
             .startTicks = stat->startTicks,
             .isAlive = stat->state != 'Z' && stat->state != 'X',
             .hasOneThread = stat->threads == 1};
}

/// 0 for what cannot be read: a process that is not readable in full still has a row.
std::uint64_t ProcessTable::Pass::readResidentBytes(const OpenFiles& files) const {
  static const auto pageSize = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  if (!files.statm) return 0;
  std::array<char, 256> buffer;
  return parseResidentPages(readStart(files.statm.get(), buffer)).value_or(0) * pageSize;
}

ProcessTable::OpenFiles ProcessTable::Pass::openFiles(std::int32_t pid) {
  OpenFiles files;
  files.stat = openAt(procDirectory_, ProcPath{pid, "stat"}.text());
  if (files.stat) files.statm = openAt(procDirectory_, ProcPath{pid, "statm"}.text());
  if ((!files.stat || !files.statm) && outOfDescriptors()) ranOut_ = true;
  return files;
}

void ProcessTable::Pass::settleYoungRows() {
  std::uint64_t lastTick = 0;
  for (const Slot& slot : slots_) {
    if (slot.row && isYoung(*slot.row)) lastTick = std::max(lastTick, slot.row->startTicks);
  }
  if (lastTick == 0) return;
  clock_.sleepPast(lastTick);
  for (std::size_t i = 0; i < slots_.size(); ++i) {
    auto& row = slots_[i].row;
    if (!row || !isYoung(*row)) continue;
    OpenFiles none;
    auto settled = readAnew(pids_[i], none);
    // Another start: the process that was found has ended, and the new one came after the listing
    // began.
    const bool same = settled && settled->startTicks == row->startTicks;
    row = same ? std::move(settled) : std::nullopt;
  }
}

const ProcessTable::Row* ProcessTable::Pass::findRow(std::int32_t pid) const {
  auto found = std::ranges::lower_bound(pids_, pid);
  if (found == pids_.end() || *found != pid) return nullptr;
  const auto& row = slots_[static_cast<std::size_t>(found - pids_.begin())].row;
  return row ? &*row : nullptr;
}

/// The first process of the system cannot end. Another parent is known to live when this listing
/// has it, as the process that it was; a parent that is younger than its child got the pid of the
/// real one, or took the child over from it.
bool ProcessTable::Pass::isParentStillThere(const Row& row, std::uint64_t parentStartTicks) const {
  constexpr std::int32_t firstProcess = 1;
  if (row.record.parentPID == firstProcess) return true;
  const Row* parent = findRow(row.record.parentPID);
  return parent != nullptr && parent->isAlive && parent->startTicks == parentStartTicks &&
         parent->startTicks <= row.startTicks;
}

void ProcessTable::Pass::readOrphansAgain() {
  std::vector<std::size_t> orphans;
  for (std::size_t i = 0; i < slots_.size(); ++i) {
    const Slot& slot = slots_[i];
    if (!slot.isRemembered || !slot.row) continue;
    if (!isParentStillThere(*slot.row, slot.files.parentStartTicks)) orphans.push_back(i);
  }
  forEachPart(orphans.size(), [&](std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
      Slot& slot = slots_[orphans[i]];
      slot.row = readKept(pids_[orphans[i]], slot.files);
    }
  });
}

void ProcessTable::Pass::keepOpenFiles() {
  kept_->clear();
  for (std::size_t i = 0; i < slots_.size(); ++i) {
    Slot& slot = slots_[i];
    if (!slot.files.stat) continue;
    keepRow(slot);
    kept_->push_back({pids_[i], std::move(slot.files)});
  }
}

/// Remembers a row that was read while a witness watched, if nothing can change it but its process
/// and the end of its parent.
void ProcessTable::Pass::keepRow(Slot& slot) const {
  slot.files.row.reset();
  if (!slot.row || !slot.files.witness.file()) return;
  const Row& row = *slot.row;
  if (!row.isAlive || !row.hasOneThread || !row.record.terminal.empty()) return;
  const Row* parent = findRow(row.record.parentPID);
  slot.files.parentStartTicks = parent != nullptr ? parent->startTicks : 0;
  slot.files.row = row;
}

ProcessTable::Listing ProcessTable::read(std::uint32_t owner, bool keepFiles) {
  auto kept = kept_.tryTake();
  return Pass{*this, owner, kept.get(), keepFiles}.run();
}

void ProcessTable::closeKeptFiles() {
  auto kept = kept_.tryTake();
  if (kept != nullptr) kept->clear();
}

}  // namespace tessaloom::linux_kernel
