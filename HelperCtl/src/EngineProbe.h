#pragma once

#include <filesystem>
#include <string>

#include "HelperCore/CurrentUser.h"

namespace tessaloom {

/// What came of asking an engine for its version.
struct EngineProbe {
  std::string version;  ///< The first line that it printed; empty if it failed.
  std::string problem;  ///< Why it failed, one line; empty if it did not.
};

/// The outcome for an engine that did not end within `probeTimeLimit`.
EngineProbe hungProbe();

/// Runs `executable --version` as the helper does, but with the directory for temporary files that
/// all users share: making the private one is the helper's task.
EngineProbe probeEngine(const std::filesystem::path& executable, const CurrentUser& user);

/// The program that runs a script, as its first line names it: "node" for "#!/usr/bin/env node";
/// empty if the file is not a script.
std::string interpreterOf(const std::filesystem::path& executable);

}  // namespace tessaloom
