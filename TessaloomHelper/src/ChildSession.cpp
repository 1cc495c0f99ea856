#include "ChildSession.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <system_error>
#include <utility>

#include "SpawnPlatform.h"
#include "TLFoundation/Pipe.h"
#include "TLFoundation/Unicode.h"

namespace tessaloom {

namespace {

/// How often a child is asked for its exit where no descriptor tells it.
constexpr std::chrono::milliseconds exitPollInterval{20};

Pipe newPipe() {
  auto pipe = makePipe();
  if (!pipe) throw std::system_error(pipe.error(), std::generic_category());
  return std::move(*pipe);
}

void setNonBlocking(const FileDescriptor& descriptor) {
  if (::fcntl(descriptor.get(), F_SETFL, O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category());
  }
}

/// What poll takes for a wait until `until`: rounded up, so that it never returns just before.
int pollTimeout(ChildSession::Clock::time_point until) {
  const auto rest = std::chrono::ceil<std::chrono::milliseconds>(
      std::max(until - ChildSession::Clock::now(), ChildSession::Clock::duration::zero()));
  constexpr std::int64_t longest = std::numeric_limits<int>::max();
  return static_cast<int>(std::min<std::int64_t>(rest.count(), longest));
}

void empty(const FileDescriptor& pipe) {
  std::array<char, 64> bytes{};
  while (::read(pipe.get(), bytes.data(), bytes.size()) > 0) {
  }
}

}  // namespace

/// This process's ends of a child's pipes. None of them blocks.
struct ChildSession::Ends {
  FileDescriptor input;
  FileDescriptor output;
  FileDescriptor error;
  FileDescriptor wake;
};

std::expected<ChildSession, int> ChildSession::launch(const CLIInvocation& invocation) {
  try {
    auto output = newPipe();
    auto error = newPipe();
    auto input = newPipe();
    auto wake = newPipe();
    for (const FileDescriptor* ours :
         {&output.readEnd, &error.readEnd, &input.writeEnd, &wake.readEnd, &wake.writeEnd}) {
      setNonBlocking(*ours);
    }
    const ChildEnds ends{input.readEnd.get(), output.writeEnd.get(), error.writeEnd.get()};
    auto child = std::make_shared<ChildProcess>(invocation, ends, std::move(wake.writeEnd));
    // The child has its ends now; what they free is enough for the descriptor of its exit.
    for (FileDescriptor* theirs : {&input.readEnd, &output.writeEnd, &error.writeEnd}) {
      theirs->reset();
    }
    const std::string_view text =
        invocation.standardInput ? std::string_view(*invocation.standardInput) : std::string_view();
    return ChildSession(std::move(child),
                        Ends{std::move(input.writeEnd), std::move(output.readEnd),
                             std::move(error.readEnd), std::move(wake.readEnd)},
                        text);
  } catch (const std::system_error& failure) {
    return std::unexpected(failure.code().value());
  }
}

ChildSession::ChildSession(std::shared_ptr<ChildProcess> child, Ends ends, std::string_view input)
    : child_(std::move(child)),
      wake_(std::move(ends.wake)),
      exit_(SpawnPlatform::exitDescriptor(child_->pid())),
      output_(std::move(ends.output)),
      error_(std::move(ends.error)),
      input_(std::move(ends.input), input) {}

ChildSession::~ChildSession() {
  if (child_) child_->destroy();
}

bool ChildSession::awaitExit(Clock::time_point deadline) {
  while (!hasExited()) {
    const auto now = Clock::now();
    if (now >= deadline) return false;
    child_->sendDueKills(now);
    moveBytes(nextWake(deadline));
  }
  exited_ = true;
  exit_.reset();
  wake_.reset();
  status_ = child_->reap();
  return true;
}

void ChildSession::awaitReaders(std::chrono::milliseconds grace) {
  const auto end = Clock::now() + grace;
  while (!(output_.finished() && error_.finished()) && Clock::now() < end) moveBytes(end);
}

RunResult ChildSession::result() const {
  return {status_, Unicode::repairUTF8(output_.contents()), Unicode::repairUTF8(error_.contents())};
}

ChildSession::Clock::time_point ChildSession::nextWake(Clock::time_point deadline) const {
  auto wake = child_->nextKill().value_or(deadline);
  if (!exit_) wake = std::min(wake, Clock::now() + exitPollInterval);
  return std::min(wake, deadline);
}

void ChildSession::moveBytes(Clock::time_point until) {
  enum Watched : std::uint8_t { output, error, input, exit, wake, count };
  // poll passes over negative descriptors.
  std::array<pollfd, count> watched{{{output_.descriptor(), POLLIN, 0},
                                     {error_.descriptor(), POLLIN, 0},
                                     {input_.descriptor(), POLLOUT, 0},
                                     {exit_.get(), POLLIN, 0},
                                     {wake_.get(), POLLIN, 0}}};
  if (::poll(watched.data(), watched.size(), pollTimeout(until)) <= 0) return;
  if (watched[output].revents != 0) output_.readChunk();
  if (watched[error].revents != 0) error_.readChunk();
  if (watched[input].revents != 0) input_.writeSome();
  if (watched[wake].revents != 0) empty(wake_);
  if (watched[exit].revents != 0) {
    // The news can be a moment ahead of the zombie on macOS.
    child_->awaitExit();
    exited_ = true;
  }
}

}  // namespace tessaloom
