#pragma once

#include <dirent.h>

#include <memory>
#include <string_view>

#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

/// The entries of an open directory, without "." and "..", in the order of the file system. For one
/// thread.
class DirectoryReader {
 public:
  /// Takes the descriptor of a directory. False, with errno set, when it cannot be read.
  explicit DirectoryReader(FileDescriptor directory) : stream_(::fdopendir(directory.get())) {
    if (stream_) directory.release();
  }
  explicit operator bool() const { return stream_ != nullptr; }

  /// The directory's descriptor, which this object owns.
  int descriptor() const { return ::dirfd(stream_.get()); }

  /// Starts again with the first entry.
  void rewind() { ::rewinddir(stream_.get()); }

  /// The name of the next entry, valid until the next call; null at the end, or if the rest cannot
  /// be read.
  const char* next() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): a stream of one thread's own, where readdir is safe.
    while (const dirent* entry = ::readdir(stream_.get())) {
      const std::string_view name(entry->d_name);
      if (name != "." && name != "..") return entry->d_name;
    }
    return nullptr;
  }

 private:
  struct Close {
    void operator()(DIR* directory) const { ::closedir(directory); }
  };

  std::unique_ptr<DIR, Close> stream_;
};

}  // namespace tessaloom
