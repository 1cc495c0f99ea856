#include "HelperProtocol/HelperDTOError.h"

namespace tessaloom {

HelperDTOError::HelperDTOError(std::int32_t value, const std::string& message)
    : std::runtime_error(message), value_(value) {}

HelperDTOError HelperDTOError::invalidPID(std::int32_t value) {
  return {value, std::to_string(value) + " is not a valid process ID."};
}

HelperDTOError HelperDTOError::at(const std::string& path) const {
  return {value_, path.empty() ? what() : path + ": " + what()};
}

}  // namespace tessaloom
