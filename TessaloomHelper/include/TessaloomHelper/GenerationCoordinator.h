#pragma once

#include <cstddef>
#include <expected>
#include <filesystem>
#include <functional>

#include "HelperProtocol/EngineStatus.h"
#include "HelperProtocol/GenerationErrorPayload.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationResult.h"
#include "TessaloomHelper/CLIRunner.h"

namespace tessaloom {

/// The body of the three generation methods. Keeps no state of its own; the runner holds the
/// registry. Safe from any thread; generate and engineStatus block for as long as the engine runs.
class GenerationCoordinator {
 public:
  static constexpr std::size_t maximumConcurrent = 3;

  /// `temporaryDirectory` is the system's per-user temporary directory.
  GenerationCoordinator(CLIRunner& runner, std::filesystem::path temporaryDirectory);

  std::expected<GenerationResult, GenerationErrorPayload> generate(
      const GenerationRequest& request) const;

  /// True when a running engine was signalled.
  bool cancel(const GenerationCancelRequest& request) const;

  /// Never fails: what cannot be found out is absent.
  EngineStatus engineStatus(const EngineStatusRequest& request) const;

 private:
  CLIRunner& runner_;
  std::filesystem::path temporaryDirectory_;
};

}  // namespace tessaloom
