#include "HelperCore/ChildProcess.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>

#include "TLFoundation/PointerArray.h"

namespace tessaloom {

namespace {

/// Whether the child is a zombie, without reaping it. With WNOHANG in `options` it only asks.
bool isZombie(pid_t pid, int options) {
  siginfo_t info{};  // For a child that still runs, si_pid stays as it was.
  while (::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT | options) != 0) {
    if (errno != EINTR) return true;  // ECHILD: it has been reaped already.
  }
  return info.si_pid != 0;
}

/// Takes a child that is known to have exited.
ChildEnd endOf(pid_t pid) {
  constexpr ChildEnd unknown{-1, false};
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return unknown;
  }
  return WIFSIGNALED(status) ? ChildEnd{WTERMSIG(status), true}
                             : ChildEnd{WEXITSTATUS(status), false};
}

std::vector<std::string> argumentVector(const CLIInvocation& invocation) {
  std::vector<std::string> result{invocation.executable.string()};
  result.insert(result.end(), invocation.arguments.begin(), invocation.arguments.end());
  return result;
}

std::vector<std::string> environmentVector(const Environment& environment) {
  std::vector<std::string> result;
  result.reserve(environment.size());
  for (const auto& [name, value] : environment) {
    result.emplace_back(name).append("=").append(value);
  }
  return result;
}

}  // namespace

std::expected<std::shared_ptr<ChildProcess>, int> ChildProcess::launch(
    const CLIInvocation& invocation, const SpawnPlatform::ChildEnds& ends, FileDescriptor wake,
    const std::optional<rlimit>& descriptorLimit) {
  // Made first: once there is a child, nothing may fail.
  auto child = std::make_shared<ChildProcess>(MadeByLaunch{}, std::move(wake));
  auto arguments = argumentVector(invocation);
  auto environment = environmentVector(invocation.environment);
  const auto& directory = invocation.workingDirectory;
  const auto pid =
      SpawnPlatform::spawn({.executable = invocation.executable.c_str(),
                            .arguments = pointerArray(arguments).data(),
                            .environment = pointerArray(environment).data(),
                            .workingDirectory = directory ? directory->c_str() : nullptr,
                            .descriptorLimit = descriptorLimit ? &*descriptorLimit : nullptr},
                           ends);
  if (!pid) return std::unexpected(pid.error());
  child->pid_ = *pid;
  return child;
}

bool ChildProcess::isRunning() const {
  return !reaped_ && !isZombie(pid_, WNOHANG);
}

pid_t ChildProcess::killTarget() const {
  return ::getpgid(pid_) == pid_ ? -pid_ : pid_;
}

void ChildProcess::sendKill(pid_t target) const {
  ::kill(target, SIGKILL);
  ::kill(pid_, SIGKILL);  // It may have left its group since the target was decided.
}

bool ChildProcess::terminate() {
  const MutexLock locked(lock_);
  if (!isRunning()) return false;
  const pid_t target = killTarget();
  // After an earlier kill of the same target there is nothing to do.
  if (std::ranges::find(kills_, target, &Kill::target) == kills_.end()) {
    kills_.push_back({Clock::now() + killDelay, target});
  }
  terminated_ = true;
  ::kill(target, SIGTERM);
  // When the pipe is full the waiting thread has enough to wake it.
  [[maybe_unused]] const auto written = ::write(wake_.get(), "", 1);
  return true;
}

bool ChildProcess::wasTerminated() const {
  const MutexLock locked(lock_);
  return terminated_;
}

std::optional<ChildProcess::Clock::time_point> ChildProcess::nextKill() const {
  const MutexLock locked(lock_);
  if (kills_.empty()) return std::nullopt;
  return kills_.front().due;
}

void ChildProcess::sendDueKills(Clock::time_point now) {
  const MutexLock locked(lock_);
  const auto firstLater =
      std::ranges::find_if(kills_, [now](const Kill& kill) { return kill.due > now; });
  if (firstLater == kills_.begin()) return;
  const bool running = isRunning();
  for (auto kill = kills_.begin(); running && kill != firstLater; ++kill) {
    sendKill(kill->target);
  }
  kills_.erase(kills_.begin(), firstLater);
}

bool ChildProcess::hasExited() const {
  const MutexLock locked(lock_);
  return !isRunning();
}

ChildEnd ChildProcess::reap() {
  const MutexLock locked(lock_);
  reaped_ = true;
  wake_.reset();
  return endOf(pid_);
}

void ChildProcess::destroy() {
  {
    const MutexLock locked(lock_);
    if (reaped_) return;
    // A group that has lost its leader is left alone, here as elsewhere.
    if (isRunning()) sendKill(killTarget());
  }
  isZombie(pid_, 0);  // Blocks until it is, without the lock.
  reap();
}

}  // namespace tessaloom
