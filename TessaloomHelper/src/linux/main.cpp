#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "GenerationDirectory.h"
#include "HelperCore/ExecutableIdentity.h"
#include "HelperCore/Kernel.h"
#include "HelperCore/PerUserTemporaryDirectory.h"
#include "HelperProtocol/HelperConstants.h"
#include "HelperProtocol/linux/SessionBus.h"
#include "Log.h"
#include "StandardOptions.h"
#include "TLFoundation/ErrnoText.h"
#include "TLFoundation/linux/ExecutablePath.h"
#include "TessaloomHelper/CLIRunner.h"
#include "TessaloomHelper/ExitWhenIdle.h"
#include "TessaloomHelper/GenerationCoordinator.h"
#include "TessaloomHelper/HelperService.h"
#include "linux/BusListener.h"
#include "linux/PeerRequirement.h"
#include "linux/ResourceLimits.h"
#include "linux/StopSignals.h"
#include "linux/SystemdUnit.h"
#include "linux/ThreadTasks.h"

namespace tessaloom {

namespace {

constexpr std::chrono::seconds registrationLimit{2};
constexpr std::chrono::milliseconds lastTasksLimit{200};
constexpr std::size_t maximumReplyBytes = 32UL * 1'048'576;

/// The helper may be started with a standard descriptor closed, whose number the next one would
/// take, and with it the error lines.
void openStandardDescriptors() {
  for (int standard = STDIN_FILENO; standard <= STDERR_FILENO; ++standard) {
    if (::fcntl(standard, F_GETFD) == -1) ::open("/dev/null", O_RDWR);
  }
}

/// By default the allocator raises both thresholds to the size of the largest block that was ever
/// freed, and then keeps blocks of that size in an arena for each thread.
void limitFreedMemory() {
  constexpr int threshold = 128 * 1024;
  // NOLINTBEGIN(concurrency-mt-unsafe): no other thread has been started.
  ::mallopt(M_MMAP_THRESHOLD, threshold);
  ::mallopt(M_TRIM_THRESHOLD, threshold);
  ::mallopt(M_ARENA_MAX, 2);
  // NOLINTEND(concurrency-mt-unsafe)
}

int serve() {
  limitFreedMemory();
  openStandardDescriptors();
  const ResourceLimits limits = ResourceLimits::current();
  limits.raise();
  const StopSignals signals;
  std::optional<std::filesystem::path> executable;
  if (auto path = ownExecutablePath()) executable = std::move(*path);

  const auto bus = openSessionBus();
  if (!bus) {
    logLine("could not connect to the session bus", errnoText(bus.error()));
    return 1;
  }
  const auto identity = ExecutableIdentity::of("/proc/self/exe");

  const std::unique_ptr<Kernel> kernel = makeSystemKernel();
  ThreadTasks engineTasks(ThreadTasks::Shortage::refuses);
  ThreadTasks queueTasks;
  ThreadTasks peerCheckTasks;
  const auto releaseDescriptors = [&kernel] { kernel->releaseKeptDescriptors(); };
  CLIRunner runner(limits.descriptors(), releaseDescriptors);
  const GenerationCoordinator coordinator(runner, perUserTemporaryDirectory(),
                                          {.releaseDescriptors = releaseDescriptors});
  std::optional<BusListener> listener;
  ExitWhenIdle exitWhenIdle(executable, identity, runner, queueTasks,
                            [&listener] { listener->requestExit(); });
  const ServiceContext context{.coordinator = coordinator,
                               .kernel = *kernel,
                               .exitWhenIdle = exitWhenIdle,
                               .runEngineCall = [](const auto& work) { work(); },
                               .shortVersion = TESSALOOM_VERSION,
                               .maximumReplyBytes = maximumReplyBytes};
  listener.emplace(BusListener::Collaborators{
      .bus = bus->get(),
      .context = context,
      .engineTasks = engineTasks,
      .queueTasks = queueTasks,
      .peerCheckTasks = peerCheckTasks,
      .requirement = PeerRequirement(::geteuid(), executable.value_or("")),
      .signals = signals,
      .endEngines = [&runner] { runner.endAll(); }});
  // With the listener in place, so that a peer that calls meanwhile is vetted like any other.
  registerSystemdUnit(bus->get(), registrationLimit, signals.descriptor());
  const auto signal = signals.next();
  const int status = signal ? reportEnd(*signal) : listener->run();
  removeUnusedDirectory(perUserTemporaryDirectory());
  // Threads may be blocked in work that nothing waits for; then the process ends without joining
  // them.
  for (ThreadTasks* tasks : {&engineTasks, &queueTasks, &peerCheckTasks}) {
    if (!tasks->stop(lastTasksLimit)) std::_Exit(status);
  }
  return status;
}

}  // namespace

}  // namespace tessaloom

int main(int argc, char** argv) {
  if (argc > 1) {
    const auto status =
        tessaloom::handleStandardOption(argv[1], "tessaloom-helper", "The session bus");
    if (status) return *status;
    if (*argv[1] == '-') {
      (void)std::fputs("Usage: tessaloom-helper [--help | --version]\n", stderr);
      return 2;
    }
  }
  try {
    return tessaloom::serve();
  } catch (const std::exception& error) {
    tessaloom::logLine(std::string("could not start: ") + error.what());
    return 1;
  }
}
