#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "HelperCore/CLIInvocation.h"
#include "HelperProtocol/GenerationEnums.h"

namespace tessaloom {

/// For an engine that is asked for its version.
inline constexpr std::chrono::seconds probeTimeLimit{10};

/// How an engine is started, as plain values. Nothing here touches the file system; pure functions,
/// safe from any thread.
namespace CLIInvocationBuilder {

std::vector<std::filesystem::path> searchLocations(const std::filesystem::path& homeDirectory);

/// The nine variables of an engine.
Environment environment(const std::filesystem::path& homeDirectory, const std::string& loginName,
                        const std::filesystem::path& temporaryDirectory);

std::vector<std::string> claudeArguments(GenerationShape shape);
std::vector<std::string> codexArguments(const std::optional<std::filesystem::path>& schemaFile);

/// The vector of `engine`: claude ignores the schema file, codex the shape.
std::vector<std::string> arguments(GenerationEngineID engine, GenerationShape shape,
                                   const std::optional<std::filesystem::path>& schemaFile);

/// Asks an engine for its version.
CLIInvocation versionProbe(std::filesystem::path executable, Environment environment);

/// The standard-input text: the rules, the trimmed instructions when there are any, the task.
std::string prompt(std::string_view instructions, std::string_view prompt);
}  // namespace CLIInvocationBuilder

}  // namespace tessaloom
