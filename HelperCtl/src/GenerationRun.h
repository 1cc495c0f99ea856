#pragma once

#include "HelperProtocol/GenerationRequest.h"
#include "Transport.h"

namespace tessaloom {

/// Runs one generation and waits for its answer, with the elapsed time on standard error where that
/// is a terminal.
///
/// SIGINT and SIGTERM cancel it, and again until the cancellation or the generation is answered;
/// then the reply is a generation error of the kind `cancelled`. A second signal leaves without an
/// answer. Throws std::system_error.
CallReply runGeneration(Transport& transport, const GenerationRequest& request);

}  // namespace tessaloom
