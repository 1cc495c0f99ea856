#include "HelperLine.h"

#include <unistd.h>

#include <string>

#include "TLFoundation/DisplayString.h"

namespace tessaloom {

void writeHelperLine(std::string_view text) {
  constexpr std::int64_t limit = 500;  // Unicode scalars.
  const std::string line = "helper: " + DisplayString::singleLine(text, limit) + '\n';
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace tessaloom
