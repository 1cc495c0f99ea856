#pragma once

#include "HelperProtocol/GenerationEnums.h"
#include "Transport.h"

namespace tessaloom {

/// The error of a generation as a person should read it: with what to do about it, and with words
/// where the engine had none. Errors of other kinds come back unchanged.
CallError explainGenerationError(CallError error, GenerationEngineID engine);

}  // namespace tessaloom
