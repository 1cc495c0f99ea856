#pragma once

#include <chrono>
#include <expected>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>

#include "HelperProtocol/UUID.h"
#include "TLFoundation/FileDescriptor.h"

namespace tessaloom {

/// Makes sure that `directory` is a real directory of this user with mode 0700, making it and what
/// is missing above it. The umask does not matter. Returns it open, with a shared lock that marks
/// it as in use while it is open, or the error: anything else that exists there is refused and not
/// changed, with the open directory that holds it (`parent`) also what is mounted there. Safe from
/// any thread.
std::expected<FileDescriptor, int> openPrivateDirectory(const std::filesystem::path& directory,
                                                        const FileDescriptor& parent = {});

/// Removes a directory that `openPrivateDirectory` would accept, if it is empty and neither this
/// nor another process uses it. The directories of generations whose process was killed are removed
/// from it first, for half a second at most. A process that starts to use it at the same moment
/// creates it again.
void removeUnusedDirectory(const std::filesystem::path& directory);

/// The directory of one generation, "tessaloom-generation-" and the request id. It is removed when
/// this object is destroyed, with all that the engine made in it, including directories without
/// permissions; no link is followed, and no other file system that is mounted below it is changed.
/// What cannot be removed remains.
class GenerationDirectory {
 public:
  /// What is not removed in this time remains as well. The reply waits for the removal, neither the
  /// generation's deadline nor its cancellation ends it, and a process that an engine left behind
  /// may write faster than this removes. Engines leave some files; on a busy disk the time is
  /// enough for a thousand directories.
  static constexpr std::chrono::seconds removalTimeLimit{5};

  /// Makes the directory in `temporaryDirectory`. Both must be, or become, private to this user; an
  /// existing private one is taken over. On an errno value nothing that can be removed
  /// stays under the directory's name.
  static std::expected<GenerationDirectory, int> create(
      const std::filesystem::path& temporaryDirectory, const UUID& requestID,
      std::chrono::milliseconds removalLimit = removalTimeLimit);

  GenerationDirectory(GenerationDirectory&&) = default;
  GenerationDirectory& operator=(GenerationDirectory&&) = delete;
  ~GenerationDirectory();

  const std::filesystem::path& path() const { return path_; }

  /// Writes a file and returns its path, or the error if not all of the text could be written.
  std::expected<std::filesystem::path, int> write(const std::string& name,
                                                  std::string_view text) const;

 private:
  GenerationDirectory(std::filesystem::path parent, std::string name,
                      std::chrono::milliseconds removalLimit)
      : parent_(std::move(parent)),
        name_(std::move(name)),
        path_(parent_ / name_),
        removalLimit_(removalLimit) {}

  std::filesystem::path parent_;
  std::string name_;
  std::filesystem::path path_;  ///< Of these two; the destructor must not allocate.
  FileDescriptor directory_;    ///< Kept open so that removal does not depend on getting one.
  std::chrono::milliseconds removalLimit_;
};

}  // namespace tessaloom
