#include "linux/SocketHolders.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

#include "linux/DescriptorBudget.h"
#include "linux/Parallel.h"
#include "linux/ProcFiles.h"

namespace tessaloom::linux_kernel {

namespace {

std::string readName(int procDirectory, std::int32_t pid) {
  std::array<char, 256> buffer;
  auto text = readStartAt(procDirectory, ProcPath{pid, "comm"}.text(), buffer);
  if (text.ends_with('\n')) text.remove_suffix(1);
  return std::string{text};
}

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
        budget_(known != nullptr ? known->size() : 0) {}

  Listing run();

 private:
  struct Slot {
    std::shared_ptr<const HeldSockets> held;
    KnownProcess known;
  };

  void readPart(std::size_t begin, std::size_t end);
  bool isUnchanged(KnownProcess& known) const;
  void scan(std::int32_t pid, Slot& slot);
  std::shared_ptr<const HeldSockets> readHeldSockets(std::int32_t pid);
  std::vector<HeldSockets::Descriptor> readDescriptors(std::int32_t pid);
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
      slot.known = {.witness = std::move(next->witness), .held = next->held};
    }
    if (isUnchanged(slot.known)) {
      slot.held = slot.known.held;
    } else {
      scan(pid, slot);
    }
  }
}

/// Clears an entry that cannot become true again.
bool SocketHolders::Pass::isUnchanged(KnownProcess& known) const {
  if (!known.held) return false;
  if (!known.witness.findsNothing()) {
    known = {};
    return false;
  }
  return known.witness.isSettled(startedAt_, settled_);
}

void SocketHolders::Pass::scan(std::int32_t pid, Slot& slot) {
  // Most processes of a machine are someone else's: asked first, because it is the cheapest.
  if (!isOwn(pid)) return;
  RestWitness witness(procDirectory_, pid);
  if (!witness.file() && outOfDescriptors()) ranOut_ = true;
  const bool isWitnessed = witness.sees();
  const bool ownedWhenOpened =
      isWitnessed && isOwnedBy(owner_, procDirectory_, pid, witness.file());
  const bool oneThread = hasOneThread(procDirectory_, pid);
  auto held = readHeldSockets(pid);
  // The witness was there first and still sees its process, or else the pid may have changed hands
  // between the other calls. Without a witness the owner alone is looked at again.
  const bool sameOwner = isWitnessed ? ownedWhenOpened && witness.sees() : isOwn(pid);
  if (!sameOwner) return;

  slot.held = held;
  // Knowledge that a scan confirms keeps its age.
  if (slot.known.held || !isWitnessed || !oneThread || known_ == nullptr) return;
  if (budget_.take(1)) slot.known = {.witness = std::move(witness), .held = std::move(held)};
}

std::shared_ptr<const HeldSockets> SocketHolders::Pass::readHeldSockets(std::int32_t pid) {
  auto held = std::make_shared<HeldSockets>();
  held->pid = pid;
  held->descriptors = pid == getpid() ? readOwnDescriptors() : readDescriptors(pid);
  if (held->descriptors.empty()) return held;
  held->name = readName(procDirectory_, pid);
  held->networkNamespace = readNetworkNamespace(procDirectory_, pid);
  return held;
}

std::vector<HeldSockets::Descriptor> SocketHolders::Pass::readDescriptors(std::int32_t pid) {
  std::vector<HeldSockets::Descriptor> descriptors;
  const FileDescriptor directory = open(ProcPath{pid, "fd"}.text(), O_DIRECTORY);
  auto numbers = directory ? listNumbers(directory.get()) : std::nullopt;
  if (!numbers) return descriptors;
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
