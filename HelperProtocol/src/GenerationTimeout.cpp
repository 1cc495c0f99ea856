#include "HelperProtocol/GenerationTimeout.h"

#include "HelperProtocol/GenerationDTOError.h"

namespace tessaloom {

GenerationTimeout::GenerationTimeout(std::int64_t seconds) : seconds_(seconds) {
  if (seconds < minimum || seconds > maximum) {
    throw GenerationDTOError::timeoutOutOfRange(seconds, minimum, maximum);
  }
}

}  // namespace tessaloom
