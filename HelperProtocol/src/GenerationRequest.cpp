#include "HelperProtocol/GenerationRequest.h"

#include <utility>

namespace tessaloom {

// Braces, because they evaluate from left to right: the instructions are checked first.
GenerationRequest::GenerationRequest(UUID requestID, GenerationEngineID engine,
                                     GenerationShape shape, std::string instructions,
                                     std::string prompt, GenerationTimeout timeout)
    : GenerationRequest{requestID,
                        engine,
                        shape,
                        BoundedText(std::move(instructions), instructionsLimit),
                        BoundedText(std::move(prompt), promptLimit),
                        timeout} {}

GenerationRequest::GenerationRequest(UUID requestID, GenerationEngineID engine,
                                     GenerationShape shape, BoundedText instructions,
                                     BoundedText prompt, GenerationTimeout timeout)
    : requestID_(requestID),
      engine_(engine),
      shape_(shape),
      instructions_(std::move(instructions)),
      prompt_(std::move(prompt)),
      timeout_(timeout) {
  instructions_.requireLength(instructionsLimit);
}

}  // namespace tessaloom
