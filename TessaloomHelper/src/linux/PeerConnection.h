#pragma once

#include <sys/types.h>

#include <cstddef>

#include "TessaloomHelper/HelperService.h"
#include "TessaloomHelper/Tasks.h"
#include "linux/SerialQueue.h"

namespace tessaloom {

/// The service and the queue that an admitted peer's calls run on. Calls keep it until they are
/// answered, even if the peer has disconnected.
struct PeerConnection {
  PeerConnection(const ServiceContext& context, Tasks& tasks, pid_t peerProcess)
      : service(context), queue(tasks, QualityOfService::userInitiated), process(peerProcess) {}

  HelperService service;
  SerialQueue queue;
  const pid_t process;

  // For the bus's thread only.
  bool isGone = false;     ///< Has disconnected; no replies are sent to it.
  std::size_t queued = 0;  ///< Calls on `queue` that are not answered yet.
};

}  // namespace tessaloom
