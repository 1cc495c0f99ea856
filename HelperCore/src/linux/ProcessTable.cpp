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
        owner_(owner),
        firstTick_(clock_.currentTick()),
        kept_(kept),
        keepFiles_(keepFiles && kept != nullptr),
        budget_(kept != nullptr ? kept->size() * filesPerProcess : 0) {}

  Listing run();

 private:
  static constexpr std::size_t filesPerProcess = 2;

  struct Slot {
    std::optional<Row> row;
    OpenFiles files;
  };

  void readPart(std::size_t begin, std::size_t end);
  std::optional<Row> readKept(std::int32_t pid, OpenFiles& files) const;
  std::optional<Row> readAnew(std::int32_t pid, OpenFiles& files);
  std::optional<Row> readOpen(std::int32_t pid, const OpenFiles& files) const;
  OpenFiles openFiles(std::int32_t pid);
  bool isOwn(std::int32_t pid) const { return processOwner(procDirectory_, pid) == owner_; }
  bool isYoung(const Row& row) const { return row.startTicks >= firstTick_; }
  void settleYoungRows();
  void keepOpenFiles();

  const int procDirectory_;
  const StartClock& clock_;
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
  settleYoungRows();

  Listing listing{.records = {}, .ranOutOfDescriptors = ranOut_};
  for (Slot& slot : slots_) {
    if (slot.row) listing.records.push_back(std::move(slot.row->record));
  }
  keepOpenFiles();
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
      slot.row = readKept(pid, slot.files);
    }
    if (!slot.row) slot.row = readAnew(pid, slot.files);
  }
}

/// Nothing, and the files closed, when their process is gone or not the user's any more.
std::optional<ProcessTable::Row> ProcessTable::Pass::readKept(std::int32_t pid,
                                                              OpenFiles& files) const {
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
  if (row && keepFiles_ && !isYoung(*row) && budget_.take(filesPerProcess)) {
    files = std::move(opened);
  }
  return row;
}

/// All of a row concerns the process that `files.stat` was opened for: it is read last, and as long
/// as that succeeds the process holds its pid, so that everything looked up by pid since was its.
std::optional<ProcessTable::Row> ProcessTable::Pass::readOpen(std::int32_t pid,
                                                              const OpenFiles& files) const {
  static const auto pageSize = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
  std::array<char, 1024> buffer;
  // A process that is not readable in full still has a row.
  std::uint64_t pages = 0;
  if (files.statm) pages = parseResidentPages(readStart(files.statm.get(), buffer)).value_or(0);
  auto stat = parseProcessStat(readStart(files.stat.get(), buffer));
  if (!stat) return std::nullopt;
  return Row{.record = {.pid = pid,
                        .parentPID = stat->parentPID,
                        .owner = owner_,
                        .start = clock_.startTime(stat->startTicks),
                        .terminal = terminalName(stat->terminal),
                        .residentBytes = pages * pageSize,
                        .name = std::string{stat->name}},
             .startTicks = stat->startTicks};
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

void ProcessTable::Pass::keepOpenFiles() {
  if (kept_ == nullptr) return;
  kept_->clear();
  for (std::size_t i = 0; i < slots_.size(); ++i) {
    if (slots_[i].files.stat) kept_->push_back({pids_[i], std::move(slots_[i].files)});
  }
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
