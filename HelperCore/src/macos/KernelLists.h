#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <vector>

namespace tessaloom {

// How the kernel's lists of unknown length are read: first the size, then the records. The system
// calls are parameters.

/// Room for what appears between the two calls.
inline constexpr std::size_t spareRecords = 16;
inline constexpr int maximumTableReads = 5;

/// `read(buffer, bytes)` is sysctl(3) on one name: fills at most `bytes` and stores there how many
/// it filled, or would fill when the buffer is null; returns 0 or an errno value. A table that grew
/// beyond the spare room (ENOMEM) is sized and read again. Empty on any other failure.
template <class Record, class Read>
std::vector<Record> readTable(Read read) {
  for (int attempt = 1; attempt <= maximumTableReads; ++attempt) {
    std::size_t bytes = 0;
    if (read(nullptr, bytes) != 0 || bytes < 1) return {};

    std::vector<Record> records(bytes / sizeof(Record) + spareRecords);
    bytes = records.size() * sizeof(Record);
    int error = read(records.data(), bytes);
    if (error == 0) {
      records.resize(std::min(bytes / sizeof(Record), records.size()));
      return records;
    }
    if (error != ENOMEM) return {};
  }
  return {};
}

/// `read(buffer, bytes)` is one of libproc's list calls: the number of bytes that it filled, or
/// would fill when the buffer is null; less than 1 for a failure. Empty when either call fails.
template <class Record, class Read>
std::vector<Record> readList(Read read) {
  int needed = read(nullptr, 0);
  if (needed < 1) return {};

  std::vector<Record> records(static_cast<std::size_t>(needed) / sizeof(Record) + spareRecords);
  int filled = read(records.data(), static_cast<int>(records.size() * sizeof(Record)));
  if (filled < 1) return {};
  records.resize(std::min(static_cast<std::size_t>(filled) / sizeof(Record), records.size()));
  return records;
}

}  // namespace tessaloom
