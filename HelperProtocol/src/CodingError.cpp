#include "HelperProtocol/CodingError.h"

#include "TLFoundation/DisplayString.h"

namespace tessaloom {
namespace {

constexpr std::int64_t messageLimit = 500;  // Unicode scalars

std::string message(const std::string& path, const std::string& problem) {
  const std::string subject = path.empty() ? "The message body" : path;
  return DisplayString::singleLine(subject + " " + problem, messageLimit);
}

}  // namespace

DecodingError::DecodingError(Kind kind, const std::string& path, const std::string& problem)
    : std::runtime_error(message(path, problem)), kind_(kind) {}

}  // namespace tessaloom
