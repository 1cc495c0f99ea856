#include "HelperProtocol/GenerationErrorPayload.h"

#include "TLFoundation/DisplayString.h"

namespace tessaloom {

GenerationErrorPayload GenerationErrorPayload::withDetail(GenerationFailureKind kind,
                                                          GenerationEngineID engine,
                                                          const std::string& detail,
                                                          std::optional<std::int32_t> exitCode) {
  return {.kind = kind,
          .engine = engine,
          .exitCode = exitCode,
          .detail = DisplayString::singleLine(detail, detailLimit)};
}

}  // namespace tessaloom
