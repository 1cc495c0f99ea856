#include "HelperCore/BinaryAllowlist.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "PathText.h"

namespace tessaloom {
namespace {

using Kind = BinaryRejection::Kind;

/// Why a candidate that exists is refused; nullopt if it is acceptable.
std::optional<BinaryRejection> rejectionOf(const FileFacts& facts, uid_t currentUID) {
  if (!facts.isRegularFile) return BinaryRejection{Kind::notRegularFile};
  if (!facts.isExecutable) return BinaryRejection{Kind::notExecutable};
  if (facts.ownerUID != 0 && facts.ownerUID != currentUID) {
    return BinaryRejection{.kind = Kind::wrongOwner, .ownerUID = facts.ownerUID};
  }
  if ((facts.mode & (S_IWGRP | S_IWOTH)) != 0) {
    return BinaryRejection{.kind = Kind::writableByGroupOrOther, .mode = facts.mode};
  }
  return std::nullopt;
}

}  // namespace

std::vector<std::filesystem::path> BinaryAllowlist::searchLocations(
    const std::filesystem::path& homeDirectory) {
  const std::filesystem::path home = directoryText(homeDirectory);
  return {home / ".local/bin", home / ".claude/local",
          "/opt/homebrew/bin", "/usr/local/bin",
          "/usr/bin",          "/bin",
          home / ".bun/bin",   home / ".npm-global/bin",
          home / ".cargo/bin"};
}

std::expected<std::filesystem::path, BinaryRejection> BinaryAllowlist::resolve(
    std::string_view fileName, const std::vector<std::filesystem::path>& locations,
    uid_t currentUID, const FactsReader& readFacts) {
  BinaryRejection lastRejection{Kind::notFound};
  for (const std::filesystem::path& location : locations) {
    std::filesystem::path candidate = location / fileName;
    const std::optional<FileFacts> facts = readFacts(candidate);
    if (!facts) continue;
    const std::optional<BinaryRejection> rejection = rejectionOf(*facts, currentUID);
    if (!rejection) return candidate;
    lastRejection = *rejection;
  }
  return std::unexpected(lastRejection);
}

std::optional<FileFacts> BinaryAllowlist::readFacts(const std::filesystem::path& path) {
  // Both calls below look at the same file, even when a link is changed between them.
  const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                             &std::free);
  if (!resolved) return std::nullopt;
  struct stat status{};
  if (::stat(resolved.get(), &status) != 0) return std::nullopt;
  return FileFacts{.isRegularFile = S_ISREG(status.st_mode),
                   .isExecutable = ::access(resolved.get(), X_OK) == 0,
                   .ownerUID = status.st_uid,
                   .mode = static_cast<std::uint16_t>(status.st_mode)};
}

std::string BinaryAllowlist::message(const BinaryRejection& rejection, std::string_view fileName) {
  const auto sentence = [&](const char* rest) { return std::string(fileName) + rest; };
  switch (rejection.kind) {
    case Kind::wrongOwner:
      return sentence(" was found but is owned by another user, so it wasn’t run.");
    case Kind::writableByGroupOrOther:
      return sentence(" was found but is writable by other users, so it wasn’t run.");
    case Kind::notFound:
      return sentence(" wasn’t found in any of the usual install locations.");
    case Kind::notRegularFile:
    case Kind::notExecutable:
      break;
  }
  return sentence(" was found but isn’t an executable file.");
}

std::string_view executableName(GenerationEngineID engine) {
  return engine == GenerationEngineID::codex ? "codex" : "claude";
}

std::expected<std::filesystem::path, GenerationErrorPayload> resolveEngine(
    GenerationEngineID engine, const std::optional<CurrentUser>& user) {
  if (!user) return std::unexpected(unknownUserFailure(engine));
  const std::string_view name = executableName(engine);
  auto resolved =
      BinaryAllowlist::resolve(name, BinaryAllowlist::searchLocations(user->homeDirectory),
                               ::getuid(), BinaryAllowlist::readFacts);
  if (resolved) return *std::move(resolved);
  return std::unexpected(
      GenerationErrorPayload::withDetail(GenerationFailureKind::binaryNotFound, engine,
                                         BinaryAllowlist::message(resolved.error(), name)));
}

GenerationErrorPayload unknownUserFailure(GenerationEngineID engine) {
  return GenerationErrorPayload::withDetail(GenerationFailureKind::launchFailed, engine,
                                            "Could not determine the current user.");
}

}  // namespace tessaloom
