#include "HelperCore/ChildRun.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <thread>

#include "HelperCore/SpawnPlatform.h"
#include "TLFoundation/Pipe.h"
#include "TLFoundation/PollTimeout.h"

namespace tessaloom {

namespace {

/// How often a child is asked for its exit where no descriptor reports it, and how often the
/// descriptors are tried where poll fails.
constexpr std::chrono::milliseconds pollInterval{20};

/// Whether a read or write that failed so may succeed later.
bool isPassing(int error) {
  return error == EINTR || error == EAGAIN;
}

void empty(const FileDescriptor& pipe) {
  std::array<char, 64> bytes{};
  while (::read(pipe.get(), bytes.data(), bytes.size()) > 0) {
  }
}

}  // namespace

void StreamReader::readChunk() {
  const std::size_t before = bytes_.size();
  ssize_t count = 0;
  bytes_.resize_and_overwrite(before + chunkSize, [&](char* bytes, std::size_t) {
    count = ::read(pipe_.get(), bytes + before, chunkSize);
    return before + static_cast<std::size_t>(std::max<ssize_t>(count, 0));
  });
  if (count < 0 && isPassing(errno)) return;
  if (count <= 0) {
    finished_ = true;
    pipe_.reset();
    return;
  }
  finished_ = bytes_.size() > cap;
}

StdinWriter::StdinWriter(FileDescriptor pipe, std::string_view text)
    : pipe_(std::move(pipe)), rest_(text) {
  if (rest_.empty()) pipe_.reset();
}

void StdinWriter::writeSome() {
  const auto count = ::write(pipe_.get(), rest_.data(), rest_.size());
  if (count < 0 && isPassing(errno)) return;
  if (count > 0) rest_.remove_prefix(static_cast<std::size_t>(count));
  if (count < 0 || rest_.empty()) pipe_.reset();
}

std::expected<ChildRun, int> ChildRun::launch(const CLIInvocation& invocation,
                                              const std::optional<rlimit>& descriptorLimit) {
  auto output = makePipe();
  if (!output) return std::unexpected(output.error());
  auto error = makePipe();
  if (!error) return std::unexpected(error.error());
  auto input = makePipe();
  if (!input) return std::unexpected(input.error());
  auto wake = makePipe(PipeMode::nonblocking);
  if (!wake) return std::unexpected(wake.error());
  // A write of more than fits must not block, nor a read of data that the child has taken back
  // since poll reported it, as it can through /proc.
  for (const FileDescriptor* end : {&input->writeEnd, &output->readEnd, &error->readEnd}) {
    if (::fcntl(end->get(), F_SETFL, O_NONBLOCK) != 0) return std::unexpected(errno);
  }

  const std::string_view text =
      invocation.standardInput ? std::string_view(*invocation.standardInput) : std::string_view();
  StdinWriter writer(std::move(input->writeEnd), text);
  auto child = ChildProcess::launch(
      invocation, {input->readEnd.get(), output->writeEnd.get(), error->writeEnd.get()},
      std::move(wake->writeEnd), descriptorLimit);
  if (!child) return std::unexpected(child.error());
  return ChildRun(*std::move(child), std::move(wake->readEnd), std::move(output->readEnd),
                  std::move(error->readEnd), std::move(writer));
}

ChildRun::ChildRun(std::shared_ptr<ChildProcess> child, FileDescriptor wake, FileDescriptor output,
                   FileDescriptor error, StdinWriter input)
    : child_(std::move(child)),
      wake_(std::move(wake)),
      exit_(SpawnPlatform::exitDescriptor(child_->pid())),
      output_(std::move(output)),
      error_(std::move(error)),
      input_(std::move(input)) {}

ChildRun::~ChildRun() {
  if (child_) child_->destroy();
}

bool ChildRun::awaitExit(Clock::time_point deadline) {
  while (!hasExited()) {
    const auto now = Clock::now();
    if (now >= deadline) return false;
    child_->sendDueKills(now);
    moveBytes(nextWake(deadline));
  }
  exit_.reset();
  wake_.reset();
  end_ = child_->reap();
  return true;
}

void ChildRun::awaitReaders() {
  const auto end = Clock::now() + readersGrace;
  while (!(output_.finished() && error_.finished()) && Clock::now() < end) moveBytes(end);
}

ChildRun::Clock::time_point ChildRun::nextWake(Clock::time_point deadline) const {
  auto wake = child_->nextKill().value_or(deadline);
  if (!exit_) wake = std::min(wake, Clock::now() + pollInterval);
  return std::min(wake, deadline);
}

void ChildRun::moveBytes(Clock::time_point until) {
  enum Watched : std::uint8_t { output, error, input, exit, wake, count };
  // poll passes over negative descriptors.
  std::array<pollfd, count> watched{{{output_.descriptor(), POLLIN, 0},
                                     {error_.descriptor(), POLLIN, 0},
                                     {input_.descriptor(), POLLOUT, 0},
                                     {exit_.get(), POLLIN, 0},
                                     {wake_.get(), POLLIN, 0}}};
  const int ready = ::poll(watched.data(), watched.size(), pollTimeout(until));
  if (ready == 0 || (ready < 0 && errno == EINTR)) return;
  if (ready < 0) {
    // Refused, as when another process has lowered this one's limit on descriptors: instead of
    // waiting for any of them, all are tried at intervals.
    std::this_thread::sleep_until(std::min(until, Clock::now() + pollInterval));
    for (pollfd& each : watched) each.revents = each.fd < 0 ? short{0} : each.events;
  }
  if (watched[output].revents != 0) output_.readChunk();
  if (watched[error].revents != 0) error_.readChunk();
  if (watched[input].revents != 0) input_.writeSome();
  if (watched[wake].revents != 0) empty(wake_);
  // The child may not be reapable yet: on macOS the notice can come a moment before it is a zombie,
  // and a process that traces the child keeps the exit to itself. So it is asked from here on.
  if (watched[exit].revents != 0) exit_.reset();
}

}  // namespace tessaloom
