#pragma once

#include <optional>
#include <string_view>

namespace tessaloom {

/// Handles --help and --version: prints the answer on standard output and returns the exit status;
/// nothing for any other `option`. `starter` is what normally starts the helper.
std::optional<int> handleStandardOption(std::string_view option, std::string_view program,
                                        std::string_view starter);

}  // namespace tessaloom
