#include "linux/ProcFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>

#include "TLFoundation/DescriptorShortage.h"
#include "linux/ProcParser.h"

namespace tessaloom {

namespace {

/// One read holds a thousand entries of a process table.
constexpr std::size_t directoryBufferSize = std::size_t{32} * 1024;

/// The numbers among the entries that one getdents64 call left in `entries`.
void appendNumbers(std::span<const char> entries, std::vector<std::int32_t>& numbers) {
  while (!entries.empty()) {
    std::uint16_t length = 0;
    std::memcpy(&length, entries.data() + offsetof(dirent64, d_reclen), sizeof length);
    auto number = parseNumberName(entries.data() + offsetof(dirent64, d_name));
    if (number) numbers.push_back(*number);
    entries = entries.subspan(length);
  }
}

}  // namespace

ProcPath::ProcPath(std::int32_t number, std::string_view file) {
  char* end = std::to_chars(text_, text_ + 11, number).ptr;
  if (!file.empty()) {
    *end++ = '/';
    end = std::ranges::copy(file.substr(0, 18), end).out;
  }
  *end = '\0';
}

FileDescriptor ProcFiles::open(const char* path, int flags) const {
  FileDescriptor file{::openat(directory_, path, O_RDONLY | O_CLOEXEC | flags)};
  if (!file && isDescriptorShortage(errno)) ranOut_ = true;
  return file;
}

std::string_view ProcFiles::read(const ProcPath& path, std::span<char> buffer) const {
  const FileDescriptor file = open(path);
  return file ? readStart(file, buffer) : std::string_view{};
}

std::optional<std::vector<std::int32_t>> ProcFiles::listNumbers(const char* path) const {
  const FileDescriptor directory = open(path, O_DIRECTORY);
  if (!directory) return std::nullopt;
  return tessaloom::listNumbers(directory);
}

std::optional<std::uint32_t> ProcFiles::owner(std::int32_t pid) const {
  struct stat status{};
  if (::fstatat(directory_, ProcPath{pid}.text(), &status, 0) != 0) return std::nullopt;
  return status.st_uid;
}

bool ProcFiles::isOwnedBy(std::uint32_t owner, std::int32_t pid, const FileDescriptor& file) const {
  struct stat status{};
  const bool suffices = ::fstat(file.get(), &status) == 0 && status.st_uid == owner;
  return suffices || this->owner(pid) == owner;
}

std::expected<std::uint32_t, int> ProcFiles::networkNamespace(std::int32_t number) const {
  std::array<char, 64> target;
  const ssize_t length =
      ::readlinkat(directory_, ProcPath{number, "ns/net"}.text(), target.data(), target.size());
  if (length < 0) return std::unexpected(errno);
  return parseInodeLink("net", {target.data(), static_cast<std::size_t>(length)}).value_or(0);
}

std::string_view readStart(const FileDescriptor& file, std::span<char> buffer) {
  const ssize_t length = ::pread(file.get(), buffer.data(), buffer.size(), 0);
  if (length <= 0) return {};
  return {buffer.data(), static_cast<std::size_t>(length)};
}

std::optional<std::vector<std::int32_t>> listNumbers(const FileDescriptor& directory) {
  std::array<char, directoryBufferSize> buffer;
  std::vector<std::int32_t> numbers;
  for (;;) {
    const ssize_t length = ::getdents64(directory.get(), buffer.data(), buffer.size());
    if (length < 0) return std::nullopt;
    if (length == 0) return numbers;
    appendNumbers({buffer.data(), static_cast<std::size_t>(length)}, numbers);
  }
}

}  // namespace tessaloom
