#include <utility>

#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/GenerationErrorPayload.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationResult.h"
#include "HelperProtocol/GenerationTimeout.h"
#include "TLFoundation/DisplayString.h"

namespace tessaloom {
namespace {

void checkCount(const std::vector<std::string>& items, std::int64_t limit) {
  if (std::cmp_greater(items.size(), limit)) {
    throw GenerationDTOError::tooManyItems(limit, static_cast<std::int64_t>(items.size()));
  }
}

void cleanEach(std::vector<std::string>& items, std::int64_t limit) {
  for (auto& item : items) item = DisplayString::singleLine(item, limit);
}

}  // namespace

GenerationTimeout::GenerationTimeout(std::int64_t seconds) : seconds_(seconds) {
  if (seconds < minimum || seconds > maximum) throw GenerationDTOError::timeoutOutOfRange(seconds);
}

GenerationRequest::GenerationRequest(UUID requestID, GenerationEngineID engine,
                                     GenerationShape shape, std::string instructions,
                                     std::string prompt, GenerationTimeout timeout)
    : requestID_(requestID),
      engine_(engine),
      shape_(shape),
      instructions_(std::move(instructions), instructionsLimit),
      prompt_(std::move(prompt), promptLimit),
      timeout_(timeout) {}

GeneratedFields::GeneratedFields(std::string_view itemDescription, std::vector<std::string> tags,
                                 std::vector<std::string> globs, bool alwaysApply)
    : tags_(std::move(tags)), globs_(std::move(globs)), alwaysApply_(alwaysApply) {
  checkCount(tags_, maximumTags);
  checkCount(globs_, maximumGlobs);
  itemDescription_ = DisplayString::singleLine(itemDescription, itemDescriptionLimit);
  cleanEach(tags_, tagLimit);
  cleanEach(globs_, globLimit);
}

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
