#include "linux/ProcessDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <string_view>
#include <utility>

#include "TLFoundation/DirectoryReader.h"

namespace tessaloom {

namespace {

/// More than a sandbox's launcher leaves open in a process, and few enough to read.
constexpr std::size_t maximumDescriptors = 1'024;

std::expected<std::string, int> linkText(int directory, const char* path) {
  std::array<char, PATH_MAX> text{};
  const auto length = ::readlinkat(directory, path, text.data(), text.size());
  if (length < 0) return std::unexpected(errno);
  return std::string(text.data(), static_cast<std::size_t>(length));
}

bool isStandard(std::string_view descriptor) {
  return descriptor == "0" || descriptor == "1" || descriptor == "2";
}

}  // namespace

std::expected<ProcessDirectory, int> ProcessDirectory::open(const std::string& path) {
  FileDescriptor directory(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return std::unexpected(errno);
  return ProcessDirectory(std::move(directory));
}

std::expected<ProcessDirectory, int> ProcessDirectory::open(pid_t process) {
  return open("/proc/" + std::to_string(process));
}

std::expected<ProcessDirectory, int> ProcessDirectory::self() {
  return open(std::string("/proc/self"));
}

std::expected<std::string, int> ProcessDirectory::namespaceName(const char* kind) const {
  return linkText(directory_.get(), (std::string("ns/") + kind).c_str());
}

std::expected<std::set<std::string>, int> ProcessDirectory::pipes(PipeEnd end) const {
  FileDescriptor list(::openat(directory_.get(), "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!list) return std::unexpected(errno);
  DirectoryReader entries(std::move(list));
  if (!entries) return std::unexpected(errno);

  // The kernel shows how a descriptor was opened as the permissions of its link.
  const mode_t wanted = end == PipeEnd::reading ? S_IRUSR : S_IWUSR;
  std::set<std::string> found;
  for (std::size_t seen = 0; seen < maximumDescriptors; ++seen) {
    const char* name = entries.next();
    if (name == nullptr) break;
    struct stat link{};
    if (isStandard(name)) continue;
    auto text = linkText(entries.descriptor(), name);
    if (!text || !text->starts_with("pipe:[")) continue;
    if (::fstatat(entries.descriptor(), name, &link, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if ((link.st_mode & (S_IRUSR | S_IWUSR)) == wanted) found.insert(*std::move(text));
  }
  return found;
}

}  // namespace tessaloom
