#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tessaloom {

/// A child's entire environment; nothing is inherited.
using Environment = std::map<std::string, std::string>;

/// One run of a command-line tool.
struct CLIInvocation {
  std::filesystem::path executable;
  std::vector<std::string> arguments;  ///< Without the program name.
  Environment environment;
  std::optional<std::filesystem::path> workingDirectory;  ///< This process's own when absent.
  std::optional<std::string> standardInput;               ///< Written, then the pipe is closed.

  friend bool operator==(const CLIInvocation&, const CLIInvocation&) = default;
};

}  // namespace tessaloom
