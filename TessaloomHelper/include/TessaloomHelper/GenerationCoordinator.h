#pragma once

#include <cstddef>
#include <expected>
#include <filesystem>
#include <functional>
#include <optional>

#include "HelperCore/BinaryAllowlist.h"
#include "HelperCore/CurrentUser.h"
#include "HelperProtocol/EngineStatus.h"
#include "HelperProtocol/GenerationErrorPayload.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationResult.h"
#include "TessaloomHelper/CLIRunner.h"

namespace tessaloom {

/// How a generation finds out about the user and the engines; each function is called every time,
/// and nothing that it returns is kept.
struct GenerationLookups {
  std::function<std::optional<CurrentUser>()> currentUser = lookUpCurrentUser;
  std::function<std::expected<std::filesystem::path, GenerationErrorPayload>(
      GenerationEngineID, const std::optional<CurrentUser>&)>
      engine = resolveEngine;
  /// Closes what this process keeps open only for speed; see `CLIRunner`.
  std::function<void()> releaseDescriptors = [] {};
};

/// Carries out the three generation methods. Has no state but the runner's registry. Safe from any
/// thread; generate and engineStatus block for as long as the engine runs.
class GenerationCoordinator {
 public:
  static constexpr std::size_t maximumConcurrent = 3;

  /// `temporaryDirectory` is the per-user temporary directory. It is made when missing; one that is
  /// not private to this user (mode 0700, no link) makes every generation fail to launch.
  GenerationCoordinator(CLIRunner& runner, std::filesystem::path temporaryDirectory,
                        GenerationLookups lookups = {});

  /// See `CLIRunner::accept`: to be held from the acceptance of a call until it is answered.
  CLIRunner::Work accept() const { return runner_.accept(); }

  /// Runs the engine in a new directory, which is removed before this returns.
  std::expected<GenerationResult, GenerationErrorPayload> generate(
      const GenerationRequest& request) const;

  /// True when a running engine was signaled.
  bool cancel(const GenerationCancelRequest& request) const;

  /// Never fails: a field that cannot be determined is absent.
  EngineStatus engineStatus(const EngineStatusRequest& request) const;

 private:
  std::optional<CurrentUser> currentUser() const;

  CLIRunner& runner_;
  std::filesystem::path temporaryDirectory_;
  GenerationLookups lookups_;
};

}  // namespace tessaloom
