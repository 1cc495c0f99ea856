#include "GenerationDirectory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "NestedDirectory.h"
#include "TLFoundation/DescriptorShortage.h"
#include "TLFoundation/DirectoryReader.h"

namespace tessaloom {

namespace {

using Clock = std::chrono::steady_clock;

constexpr mode_t ownerOnly = S_IRWXU;
constexpr const char* namePrefix = "tessaloom-generation-";

/// 0, also when something exists at the path already, or the error.
int makeDirectories(const std::filesystem::path& path) {
  int made = ::mkdir(path.c_str(), ownerOnly);
  if (made != 0 && errno == ENOENT && path.has_parent_path()) {
    if (const int error = makeDirectories(path.parent_path()); error != 0) return error;
    made = ::mkdir(path.c_str(), ownerOnly);
  }
  if (made != 0) return errno == EEXIST ? 0 : errno;
  // The umask may have cleared bits, and a parent's set-group-ID bit may have been inherited.
  return ::chmod(path.c_str(), ownerOnly) == 0 ? 0 : errno;
}

bool isPrivate(const struct stat& facts) {
  return facts.st_uid == ::geteuid() && (facts.st_mode & ~static_cast<mode_t>(S_IFMT)) == ownerOnly;
}

/// Removes anything but a directory that holds something.
bool removeSimple(int parent, const char* name) {
  const auto remove = [=] {
    return ::unlinkat(parent, name, 0) == 0 || ::unlinkat(parent, name, AT_REMOVEDIR) == 0;
  };
  return remove() || (allowRemoval(parent, name) && remove());
}

/// Opens a directory to be emptied and gives this user all rights to it.
FileDescriptor openAccessible(int parent, const char* name) {
  FileDescriptor directory = openNestedDirectory(parent, name);
  // Not what is mounted there: that is refused before its permissions count.
  if (!directory && errno == EACCES &&
      ::fchmodat(parent, name, ownerOnly, AT_SYMLINK_NOFOLLOW) == 0) {
    directory = openNestedDirectory(parent, name);
  }
  if (directory) ::fchmod(directory.get(), ownerOnly);
  return directory;
}

/// Opens a directory, or the one of that name in `parent`, and takes the lock that says how it is
/// used: LOCK_SH while it is, LOCK_EX to remove it. EBUSY when another process's use does not allow
/// this one, ENOENT also when it was removed before the lock was taken, EXDEV when another file
/// system than that of `parent` is mounted there.
std::expected<FileDescriptor, int> openLocked(const std::filesystem::path& directory, int lock,
                                              const FileDescriptor& parent = {}) {
  FileDescriptor opened =
      parent ? openNestedDirectory(parent.get(), directory.c_str())
             : FileDescriptor(
                   ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!opened) return std::unexpected(errno);
  struct stat facts{};
  // Where a file system has no locks, nothing is removed.
  const bool isRefused =
      ::flock(opened.get(), lock | LOCK_NB) != 0 && (errno == EWOULDBLOCK || lock == LOCK_EX);
  if (::fstat(opened.get(), &facts) != 0) return std::unexpected(errno);
  if (facts.st_nlink == 0) return std::unexpected(ENOENT);
  if (!isPrivate(facts)) return std::unexpected(EACCES);
  if (isRefused) return std::unexpected(EBUSY);
  return opened;
}

/// Empties a directory tree by moving every nested directory up to its root, so that neither stack
/// nor descriptors grow with the depth that an engine made. A process may still be writing there,
/// so every loop ends at the time limit.
class TreeRemoval {
 public:
  TreeRemoval(FileDescriptor root, Clock::time_point end) : root_(std::move(root)), end_(end) {}

  void run() {
    if (!root_) return;
    while (removeEntries()) root_.rewind();
  }

 private:
  bool isOver() const { return Clock::now() >= end_; }

  /// The next entry; null also when the time is over.
  const char* next(DirectoryReader& directory) const {
    return isOver() ? nullptr : directory.next();
  }

  /// Whether anything was removed or moved.
  bool removeEntries() {
    bool progress = false;
    while (const char* name = next(root_)) {
      progress |= removeFromRoot(name);
    }
    return progress;
  }

  bool removeFromRoot(const char* name) {
    if (removeSimple(root_.descriptor(), name)) return true;
    const bool progress = emptyIntoRoot(name);
    return ::unlinkat(root_.descriptor(), name, AT_REMOVEDIR) == 0 || progress;
  }

  bool emptyIntoRoot(const char* name) {
    DirectoryReader nested(openAccessible(root_.descriptor(), name));
    bool progress = false;
    while (const char* child = nested ? next(nested) : nullptr) {
      progress |=
          removeSimple(nested.descriptor(), child) || moveToRoot(nested.descriptor(), child);
    }
    return progress;
  }

  bool moveToRoot(int parent, const char* name) {
    openAccessible(parent, name);  // Its entry for the parent changes with the move.
    do {
      const std::string moved = ".removed-" + std::to_string(moves_++);
      if (::renameat(parent, name, root_.descriptor(), moved.c_str()) == 0) return true;
    } while ((errno == EEXIST || errno == ENOTEMPTY || errno == ENOTDIR) && !isOver());
    return false;
  }

  DirectoryReader root_;
  Clock::time_point end_;
  unsigned long moves_ = 0;
};

/// Removes whatever has the name, except what is mounted there.
void removeAnything(int parent, const char* name, Clock::time_point end) {
  if (removeSimple(parent, name)) return;
  TreeRemoval(openAccessible(parent, name), end).run();
  ::unlinkat(parent, name, AT_REMOVEDIR);
}

bool writeAll(const FileDescriptor& file, std::string_view text) {
  while (!text.empty()) {
    const auto count = ::write(file.get(), text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace

std::expected<FileDescriptor, int> openPrivateDirectory(const std::filesystem::path& directory,
                                                        const FileDescriptor& parent) {
  // Another process may remove it each time before it is locked here, so the attempts are bounded
  // by time, not by number.
  constexpr std::chrono::seconds limit{1};
  constexpr std::chrono::milliseconds pause{1};  // Removing it mostly takes less.
  const auto end = Clock::now() + limit;
  // Nothing is allocated once the directory is made: a failure would leave it behind.
  const auto place = parent ? directory.filename() : directory;
  for (;;) {
    auto opened = openLocked(place, LOCK_SH, parent);
    if (opened || Clock::now() > end) return opened;
    int error = opened.error();
    if (error == ENOENT) error = makeDirectories(directory);
    if (error == 0) continue;
    if (error != EBUSY && error != ENOENT) return std::unexpected(error);
    std::this_thread::sleep_for(pause);
  }
}

void removeUnusedDirectory(const std::filesystem::path& directory) {
  constexpr std::chrono::milliseconds limit{500};  // Whoever starts to use it waits for a second.
  // No one starts to use it while the lock is held.
  const auto unused = openLocked(directory, LOCK_EX);
  if (!unused) return;
  const auto end = Clock::now() + limit;
  DirectoryReader entries(openNestedDirectory(unused->get(), "."));
  while (const char* name = entries && Clock::now() < end ? entries.next() : nullptr) {
    if (!std::string_view(name).starts_with(namePrefix)) continue;
    // One that cannot be opened for lack of descriptors may be in use; other failures are of what
    // is no directory of a generation.
    const FileDescriptor left = openAccessible(unused->get(), name);
    const bool isUsed = left ? ::flock(left.get(), LOCK_EX | LOCK_NB) != 0 : isShortage(errno);
    if (!isUsed) removeAnything(unused->get(), name, end);
  }
  ::rmdir(directory.c_str());
}

std::expected<GenerationDirectory, int> GenerationDirectory::create(
    const std::filesystem::path& temporaryDirectory, const UUID& requestID,
    std::chrono::milliseconds removalLimit) {
  const auto parent = openPrivateDirectory(temporaryDirectory);
  if (!parent) return std::unexpected(parent.error());
  GenerationDirectory made(temporaryDirectory, namePrefix + requestID.string(), removalLimit);
  auto directory = openPrivateDirectory(made.path_, *parent);
  if (!directory) {
    removeAnything(parent->get(), made.name_.c_str(), Clock::now() + removalLimit);
    return std::unexpected(directory.error());
  }
  made.directory_ = std::move(*directory);
  return made;
}

GenerationDirectory::~GenerationDirectory() {
  if (!directory_) return;  // Not made, or moved from.
  allowRemoval(directory_.get(), ".");
  ::fchmod(directory_.get(), ownerOnly);
  const auto end = Clock::now() + removalLimit_;
  TreeRemoval(std::move(directory_), end).run();
  if (::rmdir(path_.c_str()) == 0) return;
  // The engine may have put something else in its place.
  const FileDescriptor parent(
      ::open(parent_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  removeAnything(parent.get(), name_.c_str(), end);
}

std::expected<std::filesystem::path, int> GenerationDirectory::write(const std::string& name,
                                                                     std::string_view text) const {
  constexpr mode_t ownerReadWrite = S_IRUSR | S_IWUSR;
  // A directory that was taken over may hold a pipe of that name. Opening one does not wait for its
  // reader, and one that has a reader cannot be truncated.
  const FileDescriptor file(::openat(directory_.get(), name.c_str(),
                                     O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                                     ownerReadWrite));
  if (!file || ::fchmod(file.get(), ownerReadWrite) != 0 || ::ftruncate(file.get(), 0) != 0 ||
      !writeAll(file, text)) {
    return std::unexpected(errno);
  }
  return path_ / name;
}

}  // namespace tessaloom
