#include "linux/FlatpakInstance.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "TLFoundation/DescriptorShortage.h"
#include "TLFoundation/DirectoryReader.h"
#include "TLFoundation/FileDescriptor.h"
#include "linux/KeyFile.h"

namespace tessaloom {

namespace {

using PipeEnd = ProcessDirectory::PipeEnd;

constexpr std::size_t maximumInfoSize = 65'536;
constexpr std::array<const char*, 3> comparedNamespaces{"mnt", "pid", "user"};

/// Nobody else may have made, or may change, what is in it.
bool isOfThisUserOnly(int descriptor) {
  struct stat status{};
  return ::fstat(descriptor, &status) == 0 && status.st_uid == ::geteuid() &&
         (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

std::expected<FileDescriptor, int> openOwn(int directory, const char* path, int flags) {
  FileDescriptor opened(
      ::openat(directory, path, flags | O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!opened) return std::unexpected(errno);
  if (!isOfThisUserOnly(opened.get())) return std::unexpected(EPERM);
  return opened;
}

std::expected<std::string, int> readInfo(int instance) {
  const auto file = openOwn(instance, "info", 0);
  if (!file) return std::unexpected(file.error());
  std::string text(maximumInfoSize + 1, '\0');
  const auto size = ::pread(file->get(), text.data(), text.size(), 0);
  if (size < 0) return std::unexpected(errno);
  if (static_cast<std::size_t>(size) > maximumInfoSize) return std::unexpected(EFBIG);
  text.resize(static_cast<std::size_t>(size));
  return text;
}

/// Which process holds the lock that lasts as long as the instance.
std::optional<pid_t> lockHolder(const FileDescriptor& file) {
  struct flock lock{};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (::fcntl(file.get(), F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK || lock.l_pid <= 0) {
    return std::nullopt;
  }
  return lock.l_pid;
}

std::expected<ProcessDirectory, int> firstProcess(int instance) {
  const auto file = openOwn(instance, ".ref", 0);
  if (!file) return std::unexpected(file.error());
  const auto holder = lockHolder(*file);
  if (!holder) return std::unexpected(ESRCH);
  auto process = ProcessDirectory::open(*holder);
  // Asked again: the number may have become another process's before the directory was open.
  if (process && lockHolder(*file) != holder) return std::unexpected(ESRCH);
  return process;
}

/// What identifies the instance that a process belongs to.
struct Membership {
  std::array<std::string, comparedNamespaces.size()> namespaces;
  std::set<std::string> pipes;

  static std::expected<Membership, int> of(const ProcessDirectory& process, PipeEnd end) {
    Membership membership;
    for (std::size_t i = 0; i < comparedNamespaces.size(); ++i) {
      auto name = process.namespaceName(comparedNamespaces[i]);
      if (!name) return std::unexpected(name.error());
      membership.namespaces[i] = *std::move(name);
    }
    auto pipes = process.pipes(end);
    if (!pipes) return std::unexpected(pipes.error());
    membership.pipes = *std::move(pipes);
    return membership;
  }

  bool sharesPipe(const Membership& other) const {
    return std::ranges::any_of(pipes, [&](const auto& pipe) { return other.pipes.contains(pipe); });
  }
};

/// The application when `peer` belongs to this instance, else empty.
std::expected<std::string, int> applicationOf(const FileDescriptor& instances, const char* id,
                                              const Membership& peer) {
  const auto instance = openOwn(instances.get(), id, O_DIRECTORY);
  if (!instance) return std::unexpected(instance.error());
  const auto process = firstProcess(instance->get());
  if (!process) return std::unexpected(process.error());
  const auto first = Membership::of(*process, PipeEnd::reading);
  if (!first) return std::unexpected(first.error());
  if (first->namespaces != peer.namespaces && !first->sharesPipe(peer)) return "";
  const auto info = readInfo(instance->get());
  if (!info) return std::unexpected(info.error());
  if (keyFileValue(*info, "Instance", "instance-id") != id) return "";
  return keyFileValue(*info, "Application", "name").value_or("");
}

}  // namespace

std::expected<std::string, int> flatpakApplication(const ProcessDirectory& process,
                                                   const std::filesystem::path& runtimeDirectory) {
  const auto runtime = openOwn(AT_FDCWD, runtimeDirectory.c_str(), O_DIRECTORY);
  if (!runtime) return std::unexpected(runtime.error());
  auto instances = openOwn(runtime->get(), ".flatpak", O_DIRECTORY);
  if (!instances && instances.error() == ENOENT) return "";
  if (!instances) return std::unexpected(instances.error());
  const auto peer = Membership::of(process, PipeEnd::writing);
  if (!peer) return std::unexpected(peer.error());

  FileDescriptor list(::fcntl(instances->get(), F_DUPFD_CLOEXEC, 0));
  if (!list) return std::unexpected(errno);
  DirectoryReader entries(std::move(list));
  if (!entries) return std::unexpected(errno);
  while (const char* name = entries.next()) {
    const std::string_view id = name;
    // Directories of applications, below which their sandboxes write, have dots in their names.
    if (id.find_first_not_of("0123456789") != std::string_view::npos) continue;
    auto application = applicationOf(*instances, name, *peer);
    // An unreadable instance may simply have ended; only a shortage may hide the right one.
    if (!application && isShortage(application.error())) return application;
    if (application && !application->empty()) return application;
  }
  return "";
}

}  // namespace tessaloom
