#pragma once

#include <string_view>

namespace tessaloom {

/// Handles --help and --version: prints the answer on standard output and returns true; false for
/// any other `option`. `starter` is what normally starts the helper.
bool handleStandardOption(std::string_view option, std::string_view program,
                          std::string_view starter);

}  // namespace tessaloom
