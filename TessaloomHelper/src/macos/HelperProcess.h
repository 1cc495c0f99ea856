#pragma once

#include "TessaloomHelper/HelperService.h"

namespace tessaloom {

/// What the services of all connections share, made once on first use and kept for the life of the
/// process. The first use also takes the identity of the executable that was started, so it belongs
/// before anything that a newer build could overtake. Safe from any thread.
const ServiceContext& serviceContext();

}  // namespace tessaloom
