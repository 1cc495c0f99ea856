#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "CallCommands.h"
#include "Console.h"
#include "EventLoop.h"
#include "HelperProtocol/CallLoad.h"
#include "HelperProtocol/Methods.h"
#include "SessionLine.h"

namespace tessaloom {
namespace {

/// Carries lines to the helper and replies back, reading and writing only what does not block: a
/// caller may write all its lines before it reads the first reply, and it may stop reading.
class Session {
 public:
  Session(Transport& transport, bool json) : transport_(transport), json_(json), loop_(transport) {}

  ExitStatus run();

 private:
  /// A longer line cannot be sent; its end is not kept.
  static constexpr std::size_t maximumLineBytes = CallLoad::maximumBytes + 65'536;
  /// With this much unwritten output no further line is read.
  static constexpr std::size_t outputBacklog = std::size_t{16} * 1024 * 1024;
  /// What a writable pipe takes without blocking.
  static constexpr std::size_t writeSize = PIPE_BUF;

  bool mayRead() const {
    return !inputEnded_ && !next_ && output_.size() - written_ < outputBacklog;
  }
  bool isOver() const {
    return outputClosed_ || (inputEnded_ && !next_ && load_.isEmpty() && output_.empty());
  }
  void read();
  void keep(std::string_view bytes);
  std::optional<SessionLine> takeLine();
  void sendLines();
  bool send(const SessionLine& line);
  std::optional<short> outputEvents() const;
  void write(short events);

  Transport& transport_;
  const bool json_;  ///< Whether an error of the session itself is shown as JSON.
  EventLoop loop_;
  std::string input_;  ///< What was read, of which lines up to `taken_` have been taken.
  std::size_t taken_ = 0;
  std::size_t searched_ = 0;  ///< The first byte of `input_` that may be a line feed.
  bool inputEnded_ = false;
  int inputError_ = 0;               ///< Of a read that failed, which ends the input.
  std::optional<SessionLine> next_;  ///< A line that waits until the helper takes more.
  std::size_t lineNumber_ = 0;
  CallLoad load_;  ///< The calls under way, as the helper counts them.
  /// The calls so far; none once the helper is known to have accepted this program.
  std::optional<CallLoad> held_ = CallLoad();
  std::string output_;  ///< Replies, of which `written_` bytes are out.
  std::size_t written_ = 0;
  bool outputClosed_ = false;
  bool canPollOutput_ = true;
  bool unreachable_ = false;
  int outputError_ = 0;  ///< Of output that could not be written although it has a reader.
};

ExitStatus Session::run() {
  // When the reader of the output closes it, the session ends; a write fails instead of a signal.
  (void)::signal(SIGPIPE, SIG_IGN);
  loop_.watch({STDIN_FILENO,
               [this] { return mayRead() ? std::optional<short>(POLLIN) : std::nullopt; },
               [this](short) { read(); }});
  loop_.watch(
      {STDOUT_FILENO, [this] { return outputEvents(); }, [this](short events) { write(events); }});
  loop_.run([this] {
    sendLines();
    return isOver();
  });
  if (outputError_ != 0) {
    return reportOutputError(outputError_, json_);
  }
  if (inputError_ != 0) throw inputError(inputError_);
  return unreachable_ ? ExitStatus::unreachable : ExitStatus::done;
}

void Session::read() {
  std::array<char, 65'536> chunk;
  const ssize_t count = ::read(STDIN_FILENO, chunk.data(), chunk.size());
  if (count > 0) {
    keep({chunk.data(), static_cast<std::size_t>(count)});
  } else if (count == 0) {
    inputEnded_ = true;
    if (!input_.empty() && !input_.ends_with('\n')) input_.push_back('\n');
  } else if (errno != EINTR && errno != EAGAIN) {
    // A line that has been read in part is not sent.
    inputEnded_ = true;
    inputError_ = errno;
  }
}

void Session::keep(std::string_view bytes) {
  // All whole lines have been taken, so what is left is the beginning of one.
  input_.erase(0, taken_);
  searched_ -= taken_;
  taken_ = 0;
  if (input_.size() >= maximumLineBytes) {
    const std::size_t lineEnd = bytes.find('\n');
    if (lineEnd == std::string_view::npos) return;
    bytes.remove_prefix(lineEnd);
  }
  input_.append(bytes);
}

std::optional<SessionLine> Session::takeLine() {
  const std::size_t end = input_.find('\n', searched_);
  if (end == std::string::npos) {
    searched_ = input_.size();
    return std::nullopt;
  }
  SessionLine line = parseSessionLine(std::string_view(input_).substr(taken_, end - taken_));
  taken_ = searched_ = end + 1;
  return line;
}

void Session::sendLines() {
  while (next_ || (next_ = takeLine())) {
    if (!send(*next_)) return;
    next_.reset();
  }
}

/// Sends the line's call, unless the helper would refuse one more of its kind now. A call that is
/// the only one of its kind always goes: one that is too large is answered with that error.
bool Session::send(const SessionLine& line) {
  const Method* method = findMethod(line.method);
  const CallWeight weight{method != nullptr ? method->kind : Method::Kind::brief,
                          line.body ? line.body->size() : 0};
  if (load_.has(weight.kind) && !load_.fits(weight)) return false;
  // Until the helper has decided whether it accepts this program, it keeps calls of all kinds like
  // those of one.
  const CallWeight held{Method::Kind::brief, weight.bytes};
  if (held_ && !load_.isEmpty() && !held_->fits(held)) return false;
  if (held_) held_->add(held);
  load_.add(weight);
  transport_.call(line.method, line.body, [this, weight, number = ++lineNumber_](CallReply reply) {
    load_.remove(weight);
    // Errors without a domain may come from elsewhere.
    if (reply || reply.error().domain) held_.reset();
    if (!reply) unreachable_ |= reply.error().category == CallError::Category::unreachable;
    if (reply) reply = Console::shownBody(*reply);
    output_ += formatSessionReply(number, reply);
  });
  return true;
}

// With nothing to write, it is watched for its reader alone: macOS reports a hang-up only to who
// asks for one. Linux always does.
std::optional<short> Session::outputEvents() const {
  if (!output_.empty()) return POLLOUT;
  return canPollOutput_ ? std::optional<short>(POLLHUP) : std::nullopt;
}

void Session::write(short events) {
  // macOS polls no device but terminals. A device takes what is written to it.
  if ((events & POLLNVAL) != 0 && ::fcntl(STDOUT_FILENO, F_GETFD) >= 0) {
    canPollOutput_ = false;
    events = POLLOUT;
  }
  if ((events & POLLOUT) != 0 && !output_.empty()) {
    const std::size_t size = std::min(output_.size() - written_, writeSize);
    const ssize_t count = ::write(STDOUT_FILENO, output_.data() + written_, size);
    if (count < 0 && errno != EINTR && errno != EAGAIN) {
      outputClosed_ = true;
      if (errno != EPIPE) outputError_ = errno;
    }
    if (count > 0) written_ += static_cast<std::size_t>(count);
    if (written_ == output_.size()) {
      output_.clear();
      written_ = 0;
    }
  } else if ((events & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
    outputClosed_ = true;
    if ((events & POLLNVAL) != 0) outputError_ = EBADF;  // It was closed from the start.
  }
}

}  // namespace

CommandResult runSession(const Arguments& arguments) {
  const bool json = arguments.has(jsonOption.name);
  const auto transport = openTransport();
  if (!transport) return reportError(transport.error(), json);
  return Session(**transport, json).run();
}

}  // namespace tessaloom
