#pragma once

#include <string>

namespace tessaloom {

/// The system's text for an errno value, as in "No such file or directory". Always in the C locale
/// (the process sets no other). Safe from any thread.
std::string errnoText(int error);

}  // namespace tessaloom
