#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "HelperCore/Kernel.h"
#include "HelperCore/ProvenanceCache.h"
#include "HelperProtocol/Methods.h"
#include "HelperProtocol/Reply.h"
#include "TessaloomHelper/ExitWhenIdle.h"
#include "TessaloomHelper/GenerationCoordinator.h"

namespace tessaloom {

/// What every connection's service shares: one of each for the process, outliving every service.
struct ServiceContext {
  const GenerationCoordinator& coordinator;
  Kernel& kernel;
  ExitWhenIdle& exitWhenIdle;
  /// Carries out the rest of an engine call, once its request has been decoded: on another thread,
  /// or at once if calls come on threads that may wait for an engine.
  std::function<void(std::function<void()>)> runEngineCall;
  std::string shortVersion;       ///< The version to report; cleaned and cut to 32 scalars when
                                  ///< answered.
  std::size_t maximumReplyBytes;  ///< A larger reply becomes an encoding error.
};

/// The object that one connection talks to: bytes in, one reply. Owned by its connection.
class HelperService {
 public:
  explicit HelperService(const ServiceContext& context);

  /// Carries out one call, `method` being a row of `methods` and `request` the body where it takes
  /// one. The connection's calls come one after the other; only those that run an engine may come
  /// beside others. `reply` is called exactly once: for a decoded request to run an engine,
  /// from `runEngineCall` and perhaps after this object is destroyed; otherwise before this
  /// returns.
  void call(const Method& method, std::string_view request, const ReplyHandler& reply);

 private:
  /// For how long a process may be signaled after it was listed.
  static constexpr std::chrono::seconds provenanceTTL{60};

  const ServiceContext& context_;
  ProvenanceCache provenance_{provenanceTTL};
};

}  // namespace tessaloom
