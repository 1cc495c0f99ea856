#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "HelperCore/Kernel.h"
#include "HelperCore/ProvenanceCache.h"
#include "HelperCore/WallClock.h"
#include "HelperProtocol/HelperServicing.h"
#include "TessaloomHelper/ExitWhenIdle.h"
#include "TessaloomHelper/GenerationCoordinator.h"
#include "TessaloomHelper/Tasks.h"

namespace tessaloom {

/// What every connection's service shares: one of each for the process, outliving every service.
struct ServiceContext {
  const GenerationCoordinator& coordinator;
  Kernel& kernel;
  ExitWhenIdle& exitWhenIdle;
  Tasks& tasks;
  std::string shortVersion;  ///< The version the build was given; cleaned and cut to 32 scalars
                             ///< when answered.
  std::size_t maximumReplyBytes;  ///< A larger reply becomes an encoding error.
  WallClock clock = currentTime;
};

/// The object that one connection talks to: bytes in, one reply. Owned by its connection; replies
/// of methods that work on another thread may come after it is gone.
class HelperService final : public HelperServicing {
 public:
  explicit HelperService(const ServiceContext& context);
  ~HelperService() override;

  void protocolVersion(VersionReply reply) override;
  void listProcesses(DataReply reply) override;
  void killProcess(Bytes request, DataReply reply) override;
  void listListeningPorts(DataReply reply) override;
  void helperCapabilities(DataReply reply) override;
  void generateText(Bytes request, DataReply reply) override;
  void cancelGeneration(Bytes request, DataReply reply) override;
  void quitIfOutdated(DataReply reply) override;
  void generationEngineStatus(Bytes request, DataReply reply) override;

 private:
  /// For how long a process may be signalled after it was listed.
  static constexpr std::chrono::seconds provenanceTTL{60};

  const ServiceContext& context_;
  ProvenanceCache provenance_{provenanceTTL};
};

}  // namespace tessaloom
