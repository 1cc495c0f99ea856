#include "HelperProtocol/GenerationDTOError.h"

#include <utility>

#include "TLFoundation/DisplayString.h"

namespace tessaloom {
namespace {

constexpr std::int64_t quotedLimit = 64;  // Unicode scalars.

std::string inQuotes(const std::string& text) {
  return '"' + DisplayString::singleLine(text, quotedLimit) + '"';
}

}  // namespace

GenerationDTOError::GenerationDTOError(Kind kind, const std::string& message, std::string offending,
                                       std::int64_t actual, std::int64_t limit)
    : std::runtime_error(message),
      kind_(kind),
      limit_(limit),
      actual_(actual),
      offending_(std::move(offending)) {}

GenerationDTOError GenerationDTOError::at(const std::string& path) const {
  return {kind_, path.empty() ? what() : path + ": " + what(), offending_, actual_, limit_};
}

GenerationDTOError GenerationDTOError::textTooLong(std::int64_t limit, std::int64_t actual) {
  return {Kind::textTooLong,
          "The text has " + std::to_string(actual) + " characters, more than the " +
              std::to_string(limit) + " allowed.",
          {},
          actual,
          limit};
}

GenerationDTOError GenerationDTOError::timeoutOutOfRange(std::int64_t seconds, std::int64_t minimum,
                                                         std::int64_t maximum) {
  return {Kind::timeoutOutOfRange,
          "A timeout of " + std::to_string(seconds) + " seconds is outside " +
              std::to_string(minimum) + " to " + std::to_string(maximum) + ".",
          {},
          seconds};
}

GenerationDTOError GenerationDTOError::tooManyItems(std::int64_t limit, std::int64_t actual) {
  return {Kind::tooManyItems,
          "The list has " + std::to_string(actual) + " entries, more than the " +
              std::to_string(limit) + " allowed.",
          {},
          actual,
          limit};
}

GenerationDTOError GenerationDTOError::unknownEngine(std::string offending) {
  const std::string message = "Unknown engine " + inQuotes(offending) + ".";
  return {Kind::unknownEngine, message, std::move(offending)};
}

GenerationDTOError GenerationDTOError::unknownShape(std::string offending) {
  const std::string message = "Unknown shape " + inQuotes(offending) + ".";
  return {Kind::unknownShape, message, std::move(offending)};
}

GenerationDTOError GenerationDTOError::controlCharacters() {
  return {Kind::controlCharacters, "The text has a control character."};
}

}  // namespace tessaloom
