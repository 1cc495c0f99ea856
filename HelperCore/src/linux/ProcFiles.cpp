#include "linux/ProcFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstring>

#include "linux/ProcText.h"

namespace tessaloom::linux_kernel {

namespace {

/// One read holds a thousand entries of a process table.
constexpr std::size_t directoryBufferSize = std::size_t{32} * 1024;

/// The numbers among the entries that one getdents64 call left in `entries`.
void appendNumbers(std::span<const char> entries, std::vector<std::int32_t>& numbers) {
  std::size_t offset = 0;
  while (offset < entries.size()) {
    const char* entry = entries.data() + offset;
    std::uint16_t length = 0;
    std::memcpy(&length, entry + offsetof(dirent64, d_reclen), sizeof length);
    auto number = parseNumberName(entry + offsetof(dirent64, d_name));
    if (number) numbers.push_back(*number);
    offset += length;
  }
}

}  // namespace

ProcPath::ProcPath(std::int32_t pid, std::string_view file) {
  char* end = std::to_chars(text_, text_ + 11, pid).ptr;
  if (!file.empty()) {
    *end++ = '/';
    end = std::ranges::copy(file.substr(0, 18), end).out;
  }
  *end = '\0';
}

FileDescriptor openAt(int directory, const char* path, int flags) {
  return FileDescriptor{openat(directory, path, O_RDONLY | O_CLOEXEC | flags)};
}

std::string_view readStart(int file, std::span<char> buffer) {
  const ssize_t length = pread(file, buffer.data(), buffer.size(), 0);
  if (length <= 0) return {};
  return {buffer.data(), static_cast<std::size_t>(length)};
}

std::string_view readStartAt(int directory, const char* path, std::span<char> buffer) {
  const FileDescriptor file = openAt(directory, path);
  return file ? readStart(file.get(), buffer) : std::string_view{};
}

std::optional<std::uint32_t> processOwner(int procDirectory, std::int32_t pid) {
  struct stat status{};
  if (fstatat(procDirectory, ProcPath{pid, ""}.text(), &status, 0) != 0) return std::nullopt;
  return status.st_uid;
}

bool isOwnedBy(std::uint32_t owner, int procDirectory, std::int32_t pid,
               const FileDescriptor& file) {
  struct stat status{};
  const bool known = fstat(file.get(), &status) == 0 && status.st_uid != 0;
  return known ? status.st_uid == owner : processOwner(procDirectory, pid) == owner;
}

std::optional<std::vector<std::int32_t>> listNumbers(int directory) {
  std::array<char, directoryBufferSize> buffer;
  std::vector<std::int32_t> numbers;
  for (;;) {
    const ssize_t length = getdents64(directory, buffer.data(), buffer.size());
    if (length < 0) return std::nullopt;
    if (length == 0) return numbers;
    appendNumbers({buffer.data(), static_cast<std::size_t>(length)}, numbers);
  }
}

}  // namespace tessaloom::linux_kernel
