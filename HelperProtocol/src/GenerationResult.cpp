#include "HelperProtocol/GenerationResult.h"

#include <utility>

#include "HelperProtocol/GenerationDTOError.h"
#include "TLFoundation/DisplayString.h"

namespace tessaloom {
namespace {

void checkCount(std::size_t count, std::int64_t limit) {
  if (std::cmp_greater(count, limit)) {
    throw GenerationDTOError::tooManyItems(limit, static_cast<std::int64_t>(count));
  }
}

void cleanEach(std::vector<std::string>& items, std::int64_t limit) {
  for (auto& item : items) item = DisplayString::singleLine(item, limit);
}

}  // namespace

GeneratedFields::GeneratedFields(std::string_view itemDescription, std::vector<std::string> tags,
                                 std::vector<std::string> globs, bool alwaysApply)
    : tags_(std::move(tags)), globs_(std::move(globs)), alwaysApply_(alwaysApply) {
  checkCounts(tags_.size(), globs_.size());
  itemDescription_ = DisplayString::singleLine(itemDescription, itemDescriptionLimit);
  cleanEach(tags_, tagLimit);
  cleanEach(globs_, globLimit);
}

void GeneratedFields::checkCounts(std::size_t tags, std::size_t globs) {
  checkCount(tags, maximumTags);
  checkCount(globs, maximumGlobs);
}

}  // namespace tessaloom
