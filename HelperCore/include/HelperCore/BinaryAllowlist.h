#pragma once

#include <sys/types.h>

#include <cstdint>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "HelperCore/CurrentUser.h"
#include "HelperProtocol/GenerationEnums.h"
#include "HelperProtocol/GenerationErrorPayload.h"

namespace tessaloom {

/// What a candidate executable is on disk, after symbolic links were followed.
struct FileFacts {
  bool isRegularFile;
  bool isExecutable;  ///< access(2) with X_OK, for the calling process.
  std::uint32_t ownerUID;
  std::uint16_t mode;  ///< All of st_mode: type and permission bits.

  friend bool operator==(const FileFacts&, const FileFacts&) = default;
};

/// Why no candidate was accepted.
struct BinaryRejection {
  enum class Kind : std::uint8_t {
    wrongOwner,
    writableByGroupOrOther,
    notFound,
    notRegularFile,
    notExecutable,
  };

  Kind kind;
  std::uint32_t ownerUID = 0;  ///< Of wrongOwner.
  std::uint16_t mode = 0;      ///< Of writableByGroupOrOther.

  friend bool operator==(const BinaryRejection&, const BinaryRejection&) = default;
};

/// Reads one candidate; nullopt if it is absent or unreadable.
using FactsReader = std::function<std::optional<FileFacts>(const std::filesystem::path&)>;

/// The directories searched for engines, and which executables are refused because someone other
/// than the user and root owns them or may write them. Pure functions of their arguments and the
/// file system; nothing is remembered between calls. Safe from any thread.
namespace BinaryAllowlist {

/// The nine directories, in search order.
std::vector<std::filesystem::path> searchLocations(const std::filesystem::path& homeDirectory);

/// The first acceptable candidate: `fileName` below one of `locations`, not the target of a link.
/// Otherwise the reason for which the last existing candidate was refused, or notFound.
std::expected<std::filesystem::path, BinaryRejection> resolve(
    std::string_view fileName, const std::vector<std::filesystem::path>& locations,
    uid_t currentUID, const FactsReader& readFacts);

/// The facts of the file that a path leads to, from stat(2) and access(2).
std::optional<FileFacts> readFacts(const std::filesystem::path& path);

/// The rejection as a sentence for the user, whose first word is `fileName`.
std::string message(const BinaryRejection& rejection, std::string_view fileName);
}  // namespace BinaryAllowlist

/// The executable's file name of an engine: "claude" or "codex".
std::string_view executableName(GenerationEngineID engine);

/// The engine's executable for the current user, or the failure to report: launchFailed for an
/// unknown user, binaryNotFound for every rejection.
std::expected<std::filesystem::path, GenerationErrorPayload> resolveEngine(
    GenerationEngineID engine, const std::optional<CurrentUser>& user);

/// The failure for a user that cannot be determined.
GenerationErrorPayload unknownUserFailure(GenerationEngineID engine);

}  // namespace tessaloom
