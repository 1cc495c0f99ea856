#pragma once

#include <optional>

#include "HelperProtocol/GenerationRequest.h"
#include "Transport.h"

namespace tessaloom {

struct GenerationOutcome {
  CallReply reply;
  std::optional<int> signal;  ///< The signal that interrupted it.
};

/// Runs one generation and waits for its reply. On a terminal whose foreground this process is in,
/// a line on standard error shows the elapsed time.
///
/// SIGINT, SIGTERM, SIGHUP and SIGQUIT cancel it, again and again until the helper replies that the
/// cancellation took effect, or to the generation; then the reply is a generation error of the kind
/// `cancelled`. A second signal ends the wait at once. Throws std::system_error.
GenerationOutcome runGeneration(Transport& transport, const GenerationRequest& request);

}  // namespace tessaloom
