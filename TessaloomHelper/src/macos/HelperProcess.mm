#import "HelperProcess.h"

#import <Foundation/Foundation.h>

#include <dispatch/dispatch.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#import "DispatchTasks.h"
#include "HelperCore/Kernel.h"
#include "HelperCore/PerUserTemporaryDirectory.h"
#import "HelperProtocol/macos/FoundationValues.h"
#include "Log.h"

namespace tessaloom {

namespace {

using Clock = std::chrono::steady_clock;

/// How long a helper that is to exit and whose engines' calls are answered waits for a pause
/// between brief calls. Callers that never pause would keep it running; one brief call may then be
/// interrupted.
constexpr std::chrono::seconds pauseLimit{2};
/// How long a termination signal waits for the engines, and how often it looks. launchd kills what
/// is left after 20 seconds, because the agent's property list says so.
constexpr std::chrono::seconds stopLimit{10};
constexpr std::chrono::milliseconds stopTick{100};

std::optional<std::filesystem::path> executablePath() {
  NSURL* url = NSBundle.mainBundle.executableURL;
  if (url == nil) return std::nullopt;
  return std::filesystem::path(url.fileSystemRepresentation);
}

std::optional<ExecutableIdentity> identityOf(const std::optional<std::filesystem::path>& path) {
  return path ? ExecutableIdentity::of(*path) : std::nullopt;
}

std::string shortVersion() {
  id version = NSBundle.mainBundle.infoDictionary[@"CFBundleShortVersionString"];
  return [version isKindOfClass:[NSString class]] ? textFromString(version) : "0";
}

/// The members in the order in which they use each other.
class HelperProcess {
 public:
  HelperProcess()
      : executable_(executablePath()),
        coordinator_(runner_, perUserTemporaryDirectory()),
        exitWhenIdle_(executable_, identityOf(executable_), runner_, tasks_,
                      [this] { exitWhenPaused(); }),
        context_{.coordinator = coordinator_,
                 .kernel = *kernel_,
                 .exitWhenIdle = exitWhenIdle_,
                 .runEngineCall =
                     [this](std::function<void()> work) {
                       tasks_.runConcurrently(QualityOfService::userInitiated, std::move(work));
                     },
                 .shortVersion = shortVersion(),
                 .maximumReplyBytes = std::numeric_limits<std::size_t>::max()} {}

  const ServiceContext& context() const { return context_; }
  std::shared_ptr<void> openCall(Method::Kind kind) { return openCalls_.open(kind); }
  void endOnSignals();

 private:
  void exitWhenPaused();
  void stop(int signal);
  void exitOnceAnswered(int signal, Clock::time_point deadline);

  std::optional<std::filesystem::path> executable_;
  std::unique_ptr<Kernel> kernel_ = makeSystemKernel();
  DispatchTasks tasks_;
  CLIRunner runner_;
  OpenCalls openCalls_;
  GenerationCoordinator coordinator_;
  ExitWhenIdle exitWhenIdle_;
  ServiceContext context_;
  /// Of its own: engine calls may take all the threads that the global queues share.
  dispatch_queue_t signalQueue_ =
      dispatch_queue_create("com.brindlemoor.Tessaloom.helper.signals", DISPATCH_QUEUE_SERIAL);
  std::vector<dispatch_source_t> signalSources_;
  std::atomic<bool> isStopping_ = false;
};

// No engine call was unfinished at the check, but one may have come since, and replies may not be
// sent yet. Several exits may have been asked for, each with a first check of its own.
void HelperProcess::exitWhenPaused() {
  if (isStopping_) return;
  if (!openCalls_.isPause(pauseLimit)) {
    return exitWhenIdle_.scheduleExitWhenIdle(ExitWhenIdle::nextCheck);
  }
  if (isStopping_.exchange(true)) return;
  logLine(ExitWhenIdle::exitLine);
  std::exit(0);
}

void HelperProcess::endOnSignals() {
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT}) {
    // A source receives a signal even if it is ignored, and only then does nothing else happen.
    ::signal(signal, SIG_IGN);
    dispatch_source_t source = dispatch_source_create(
        DISPATCH_SOURCE_TYPE_SIGNAL, static_cast<uintptr_t>(signal), 0, signalQueue_);
    dispatch_source_set_event_handler(source, ^{
      stop(signal);
    });
    dispatch_resume(source);
    signalSources_.push_back(source);
  }
}

void HelperProcess::stop(int signal) {
  if (isStopping_.exchange(true)) return;
  runner_.endAll();
  exitOnceAnswered(signal, Clock::now() + stopLimit);
}

void HelperProcess::exitOnceAnswered(int signal, Clock::time_point deadline) {
  if (openCalls_.isPause(pauseLimit) || Clock::now() >= deadline) {
    std::exit(reportEnd(signal));
  }
  const std::chrono::nanoseconds tick = stopTick;
  dispatch_after(dispatch_time(DISPATCH_TIME_NOW, tick.count()), signalQueue_, ^{
    exitOnceAnswered(signal, deadline);
  });
}

/// Never destroyed: other threads may still use it while the process exits.
HelperProcess& helperProcess() {
  static HelperProcess& process = *new HelperProcess;
  return process;
}

}  // namespace

const ServiceContext& serviceContext() { return helperProcess().context(); }

std::shared_ptr<void> openCall(Method::Kind kind) { return helperProcess().openCall(kind); }

void endOnSignals() { helperProcess().endOnSignals(); }

}  // namespace tessaloom
