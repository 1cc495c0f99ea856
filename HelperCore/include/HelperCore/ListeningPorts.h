#pragma once

#include <vector>

#include "HelperCore/Kernel.h"
#include "HelperProtocol/ProcessMessages.h"

namespace tessaloom {

/// The sockets on which the user's processes wait: TCP that listens, UDP that is bound. In the
/// kernel's order of processes and, within one, of descriptors. Equal rows are given once: a socket
/// behind two descriptors of one process is one row, behind descriptors of two processes two.
///
/// Never fails; what cannot be read gives no row.
std::vector<PortSample> listListeningPorts(Kernel& kernel);

}  // namespace tessaloom
