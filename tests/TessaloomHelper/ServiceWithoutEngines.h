#pragma once

#include <expected>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "HelperCore/ScriptedKernel.h"
#include "TessaloomHelper/HelperService.h"
#include "TessaloomHelper/ManualTasks.h"
#include "support/TemporaryDirectory.h"

namespace tessaloom {

/// What services need, on a system with process 42 and a wall clock that a test sets. The user is
/// known until an engine is found.
struct ServiceWithoutEngines {
  ServiceWithoutEngines() {
    kernel.table = {ownRecord(42)};
    kernel.startTimes = {{42, kernel.table[0].start}, {99, kernel.table[0].start}};
    kernel.wallClock = [this] { return Instant{Instant::duration{now++}}; };
    kernel.processClock = Instant{Instant::duration{1'700'000'100}};
  }

  TemporaryDirectory temporary;
  CLIRunner runner;
  ManualTasks tasks;
  ScriptedKernel kernel;
  double now = 1'800'000'000;
  std::optional<CurrentUser> knownUser{{"/nonexistent", "nobody"}};
  GenerationCoordinator coordinator{
      runner,
      temporary.path(),
      {.currentUser = [this] { return knownUser; },
       .engine = [this](GenerationEngineID engine, const auto& /*user*/)
           -> std::expected<std::filesystem::path, GenerationErrorPayload> {
         if (std::exchange(knownUser, std::nullopt)) return "/nonexistent/engine";
         return std::unexpected(
             GenerationErrorPayload{GenerationFailureKind::launchFailed, engine});
       }}};
  ExitWhenIdle exit{{}, {}, runner, tasks, [] {}};
  ServiceContext context{.coordinator = coordinator,
                         .kernel = kernel,
                         .exitWhenIdle = exit,
                         .runEngineCall =
                             [this](std::function<void()> work) {
                               tasks.runConcurrently(QualityOfService::userInitiated,
                                                     std::move(work));
                             },
                         .shortVersion = "1.2\n\x1b\u200b" + std::string(40, 'x'),
                         .maximumReplyBytes = 1'000};
};

}  // namespace tessaloom
