#import "HelperProcess.h"

#import <Foundation/Foundation.h>

#include <unistd.h>

#include <cstdlib>
#include <limits>
#include <optional>
#include <utility>

#import "DispatchTasks.h"
#include "HelperCore/Kernel.h"
#include "HelperCore/PerUserTemporaryDirectory.h"
#import "HelperProtocol/macos/FoundationValues.h"

namespace tessaloom {

namespace {

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

[[noreturn]] void leave() {
  constexpr std::string_view line = ExitWhenIdle::exitLine;
  [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
  std::exit(0);
}

/// The members in the order in which they use each other.
class HelperProcess {
 public:
  HelperProcess()
      : executable_(executablePath()),
        coordinator_(runner_, perUserTemporaryDirectory()),
        exitWhenIdle_(executable_, identityOf(executable_), runner_, tasks_, leave),
        context_{.coordinator = coordinator_,
                 .kernel = *kernel_,
                 .exitWhenIdle = exitWhenIdle_,
                 .tasks = tasks_,
                 .shortVersion = shortVersion(),
                 .maximumReplyBytes = std::numeric_limits<std::size_t>::max()} {}

  const ServiceContext& context() const { return context_; }

 private:
  std::optional<std::filesystem::path> executable_;
  std::unique_ptr<Kernel> kernel_ = makeSystemKernel();
  DispatchTasks tasks_;
  CLIRunner runner_;
  GenerationCoordinator coordinator_;
  ExitWhenIdle exitWhenIdle_;
  ServiceContext context_;
};

}  // namespace

const ServiceContext& serviceContext() {
  // Never destroyed: other threads may still use it while the process exits.
  static const HelperProcess& process = *new HelperProcess;
  return process.context();
}

}  // namespace tessaloom
