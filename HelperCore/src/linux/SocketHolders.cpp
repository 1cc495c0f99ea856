#include "linux/SocketHolders.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

#include "linux/DescriptorBudget.h"
#include "linux/Parallel.h"
#include "linux/ProcFiles.h"

namespace tessaloom::linux_kernel {

namespace {

std::uint64_t readNetworkNamespace(int procDirectory, std::int32_t pid) {
  struct stat status{};
  const bool known = fstatat(procDirectory, ProcPath{pid, "ns/net"}.text(), &status, 0) == 0;
  return known ? status.st_ino : 0;
}

bool hasOneThread(int procDirectory, std::int32_t pid) {
  struct stat status{};
  // Beside its own two links, the folder counts one for each thread.
  return fstatat(procDirectory, ProcPath{pid, "task"}.text(), &status, 0) == 0 &&
         status.st_nlink == 3;
}

std::optional<std::uint64_t> readSocketLink(int directory, std::int32_t descriptor) {
  std::array<char, 64> target;
  const ssize_t length =
      readlinkat(directory, ProcPath{descriptor, ""}.text(), target.data(), target.size());
  if (length <= 0) return std::nullopt;
  return parseSocketLink({target.data(), static_cast<std::size_t>(length)});
}

}  // namespace

/// One listing: the state that its parts on several threads share.
class SocketHolders::Pass {
 public:
  Pass(const SocketHolders& holders, std::uint32_t owner, std::vector<KnownProcess>* known)
      : procDirectory_(holders.procDirectory_.get()),
        settled_(holders.settled_),
        owner_(owner),
        startedAt_(RestWitness::Clock::now()),
        known_(known),
        budget_(known != nullptr ? countWitnesses(*known) : 0) {}

  Listing run();

 private:
  static std::size_t countWitnesses(const std::vector<KnownProcess>& known) {
    return static_cast<std::size_t>(std::ranges::count_if(
        known, [](const KnownProcess& each) { return bool(each.witness.file()); }));
  }

  struct Slot {
    std::shared_ptr<const HeldSockets> held;
    KnownProcess known;
  };

  void readPart(std::size_t begin, std::size_t end);
  void scan(std::int32_t pid, Slot& slot);
  void appointWitness(std::int32_t pid, KnownProcess& known);
  std::string readName(std::int32_t pid);
  std::shared_ptr<const HeldSockets> readHeldSockets(std::int32_t pid);
  std::optional<std::vector<HeldSockets::Descriptor>> readDescriptors(
      const FileDescriptor& directory) const;
  std::vector<HeldSockets::Descriptor> readOwnDescriptors() const;
  FileDescriptor open(const char* path, int flags = 0);
  bool isOwn(std::int32_t pid) const { return processOwner(procDirectory_, pid) == owner_; }
  void remember();

  const int procDirectory_;
  const std::chrono::nanoseconds settled_;
  const std::uint32_t owner_;
  const RestWitness::Clock::time_point startedAt_;
  std::vector<KnownProcess>* const known_;
  DescriptorBudget budget_;
  std::atomic<bool> ranOut_ = false;
  std::vector<std::int32_t> pids_;
  std::vector<Slot> slots_;  ///< One for each pid.
};

SocketHolders::Listing SocketHolders::Pass::run() {
  const FileDescriptor directory = open(".", O_DIRECTORY);
  auto pids = directory ? listNumbers(directory.get()) : std::nullopt;
  if (!pids) return {.holders = {}, .ranOutOfDescriptors = ranOut_};
  pids_ = *std::move(pids);
  slots_.resize(pids_.size());
  forEachPart(pids_.size(), [&](std::size_t begin, std::size_t end) { readPart(begin, end); });

  Listing listing{.holders = {}, .ranOutOfDescriptors = ranOut_};
  for (Slot& slot : slots_) {
    if (slot.held) listing.holders.push_back(std::move(slot.held));
  }
  if (known_ != nullptr) remember();
  // What could not be opened must not be remembered as empty.
  if (known_ != nullptr && ranOut_) known_->clear();
  return listing;
}

void SocketHolders::Pass::readPart(std::size_t begin, std::size_t end) {
  std::vector<KnownProcess> none;
  std::vector<KnownProcess>& known = known_ != nullptr ? *known_ : none;
  auto next = std::ranges::lower_bound(known, pids_[begin], {}, &KnownProcess::pid);
  for (std::size_t i = begin; i < end; ++i) {
    const std::int32_t pid = pids_[i];
    Slot& slot = slots_[i];
    while (next != known.end() && next->pid() < pid) ++next;
    if (next != known.end() && next->pid() == pid) {
      // Other threads may look for their place by the pid of this entry, which stays readable.
      slot.known = {std::move(next->witness), next->vouches, next->held};
    }
    scan(pid, slot);
  }
}

void SocketHolders::Pass::scan(std::int32_t pid, Slot& slot) {
  KnownProcess& known = slot.known;
  const bool nothingFound = known.vouches && known.witness.findsNothing();
  if (nothingFound && known.witness.isSettled(startedAt_, settled_)) {
    slot.held = known.held;
    return;
  }
  // Most processes of a machine are someone else's: asked first, because it is the cheapest.
  if (!isOwn(pid)) {
    known = {};
    return;
  }
  // A process that is met a second time is worth a witness.
  if (!nothingFound && known.held) appointWitness(pid, known);
  slot.held = readHeldSockets(pid);
  if (!slot.held || known_ == nullptr) {
    known = {};
  } else if (!nothingFound) {
    known.held = slot.held;
  }
}

/// Should the pid change hands now, the witness sees a process that is gone and vouches for
/// nothing.
void SocketHolders::Pass::appointWitness(std::int32_t pid, KnownProcess& known) {
  if (known.witness.sees()) {
    known.witness.startAgain();
  } else {
    const bool counts = bool(known.witness.file()) || budget_.take(1);
    known.witness = counts ? RestWitness(procDirectory_, pid) : RestWitness();
    if (counts && !known.witness.file() && outOfDescriptors()) ranOut_ = true;
  }
  known.vouches = known.witness.file() && hasOneThread(procDirectory_, pid);
}

/// Null when the process ended meanwhile or is not the user's.
std::shared_ptr<const HeldSockets> SocketHolders::Pass::readHeldSockets(std::int32_t pid) {
  auto held = std::make_shared<HeldSockets>();
  held->pid = pid;
  FileDescriptor directory;
  if (pid == getpid()) {
    held->descriptors = readOwnDescriptors();
  } else {
    directory = open(ProcPath{pid, "fd"}.text(), O_DIRECTORY);
    // One that may not be looked at holds nothing, as far as can be told.
    if (!directory) return errno == EACCES ? held : nullptr;
    auto descriptors = readDescriptors(directory);
    if (!descriptors || !isOwnedBy(owner_, procDirectory_, pid, directory)) return nullptr;
    held->descriptors = *std::move(descriptors);
  }
  if (held->descriptors.empty()) return held;
  held->name = readName(pid);
  held->networkNamespace = readNetworkNamespace(procDirectory_, pid);
  // As long as the folder can be read its process has the pid, and what was found by pid is its.
  if (directory && !listNumbers(directory.get())) return nullptr;
  return held;
}

std::string SocketHolders::Pass::readName(std::int32_t pid) {
  const FileDescriptor file = open(ProcPath{pid, "comm"}.text());
  if (!file) return {};
  std::array<char, 256> buffer;
  auto text = readStart(file.get(), buffer);
  if (text.ends_with('\n')) text.remove_suffix(1);
  return std::string{text};
}

std::optional<std::vector<HeldSockets::Descriptor>> SocketHolders::Pass::readDescriptors(
    const FileDescriptor& directory) const {
  auto numbers = listNumbers(directory.get());
  if (!numbers) return std::nullopt;
  std::vector<HeldSockets::Descriptor> descriptors;
  for (const std::int32_t number : *numbers) {
    auto inode = readSocketLink(directory.get(), number);
    if (inode) descriptors.push_back({number, *inode});
  }
  return descriptors;
}

/// The helper itself has no knowledge of itself, and thousands of descriptors because of what it
/// keeps of others. It may ask about its own directly, which is several times as fast.
std::vector<HeldSockets::Descriptor> SocketHolders::Pass::readOwnDescriptors() const {
  std::vector<HeldSockets::Descriptor> descriptors;
  std::array<char, 4096> buffer;
  auto room = parseDescriptorRoom(readStartAt(procDirectory_, "self/status", buffer)).value_or(0);
  for (std::int32_t number = 0; number < room; ++number) {
    struct statx status{};
    // Other threads open and close descriptors meanwhile, as they do in any other process.
    if (statx(number, "", AT_EMPTY_PATH, STATX_TYPE | STATX_INO, &status) != 0) continue;
    if (S_ISSOCK(status.stx_mode)) descriptors.push_back({number, status.stx_ino});
  }
  return descriptors;
}

FileDescriptor SocketHolders::Pass::open(const char* path, int flags) {
  FileDescriptor file = openAt(procDirectory_, path, flags);
  if (!file && outOfDescriptors()) ranOut_ = true;
  return file;
}

void SocketHolders::Pass::remember() {
  known_->clear();
  std::size_t sockets = 0;
  for (Slot& slot : slots_) {
    if (!slot.known.held) continue;
    sockets += slot.known.held->descriptors.size();
    if (sockets > mostSocketsKnown) break;
    known_->push_back(std::move(slot.known));
  }
}

SocketHolders::Listing SocketHolders::read(std::uint32_t owner, bool remember) {
  if (!remember) return Pass{*this, owner, nullptr}.run();
  auto known = known_.tryTake();
  return Pass{*this, owner, known.get()}.run();
}

void SocketHolders::forget() {
  auto known = known_.tryTake();
  if (known != nullptr) known->clear();
}

}  // namespace tessaloom::linux_kernel
