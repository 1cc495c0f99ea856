#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "HelperProtocol/BoundedText.h"
#include "HelperProtocol/GenerationEnums.h"
#include "HelperProtocol/GenerationTimeout.h"
#include "HelperProtocol/UUID.h"
#include "TLFoundation/HashFields.h"

namespace tessaloom {

/// One text generation. A request that breaks a limit cannot be made, so its holder need not check
/// again.
class GenerationRequest {
 public:
  static constexpr std::int64_t instructionsLimit = 8'000;  ///< User-perceived characters.
  /// User-perceived characters.
  static constexpr std::int64_t promptLimit = BoundedText::maximumLength;

  /// Throws GenerationDTOError. The checks, in order: length and then control characters of
  /// `instructions`, length and then control characters of `prompt`. (A decoded body is checked in
  /// another order; see HelperCoding.)
  GenerationRequest(UUID requestID, GenerationEngineID engine, GenerationShape shape,
                    std::string instructions, std::string prompt, GenerationTimeout timeout);
  /// Throws GenerationDTOError::textTooLong for `instructions`; counts nothing again.
  GenerationRequest(UUID requestID, GenerationEngineID engine, GenerationShape shape,
                    BoundedText instructions, BoundedText prompt, GenerationTimeout timeout);

  const UUID& requestID() const { return requestID_; }
  GenerationEngineID engine() const { return engine_; }
  GenerationShape shape() const { return shape_; }
  const std::string& instructions() const { return instructions_.value(); }
  const std::string& prompt() const { return prompt_.value(); }
  GenerationTimeout timeout() const { return timeout_; }

  friend bool operator==(const GenerationRequest&, const GenerationRequest&) = default;
  std::size_t hash() const noexcept {
    return hashFields(requestID_, engine_, shape_, instructions_, prompt_, timeout_);
  }

 private:
  UUID requestID_;
  GenerationEngineID engine_;
  GenerationShape shape_;
  BoundedText instructions_;
  BoundedText prompt_;
  GenerationTimeout timeout_;
};

/// Asks for the end of the generation with this id.
struct GenerationCancelRequest {
  UUID requestID;

  friend bool operator==(const GenerationCancelRequest&, const GenerationCancelRequest&) = default;
  std::size_t hash() const noexcept { return hashFields(requestID); }
};

}  // namespace tessaloom
