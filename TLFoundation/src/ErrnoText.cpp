#include "TLFoundation/ErrnoText.h"

#include <array>
#include <cstring>

namespace tessaloom {
namespace {

/// strerror_r has two forms (see its man page): POSIX's fills the buffer and returns a status,
/// GNU's returns the text, which need not be in the buffer. The overload picks the platform's.
[[maybe_unused]] const char* chosenText(int /*status*/, const char* buffer) {
  return buffer;
}
[[maybe_unused]] const char* chosenText(const char* text, const char* /*buffer*/) {
  return text;
}

}  // namespace

std::string errnoText(int error) {
  std::array<char, 256> buffer{};
  return chosenText(::strerror_r(error, buffer.data(), buffer.size()), buffer.data());
}

}  // namespace tessaloom
