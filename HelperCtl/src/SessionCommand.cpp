#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <string>

#include "CallCommands.h"
#include "Console.h"
#include "EventLoop.h"
#include "SessionLine.h"

namespace tessaloom {
namespace {

/// Carries lines to the helper and replies back, reading and writing only what does not block: a
/// caller may write all its lines before it reads the first reply, and it may stop reading.
class Session {
 public:
  explicit Session(Transport& transport) : transport_(transport), loop_(transport) {}

  ExitStatus run();

 private:
  /// Calls under way at once: as many engines as the helper lets one caller wait for. Further lines
  /// wait here, unread.
  static constexpr std::size_t maximumUnderWay = 16;
  /// A longer line cannot be sent; its end is not kept.
  static constexpr std::size_t longestLine = std::size_t{34} * 1024 * 1024;
  /// With this much unwritten output no further line is read.
  static constexpr std::size_t outputBacklog = std::size_t{16} * 1024 * 1024;
  /// What a writable pipe takes without blocking.
  static constexpr std::size_t writeSize = PIPE_BUF;

  bool mayRead() const {
    return !inputEnded_ && underWay_ < maximumUnderWay && output_.size() - written_ < outputBacklog;
  }
  bool isOver() const {
    return outputClosed_ || (inputEnded_ && input_.empty() && underWay_ == 0 && output_.empty());
  }
  void read();
  void keep(std::string_view bytes);
  void sendLines();
  void send(std::string_view line);
  void write(short events);

  Transport& transport_;
  EventLoop loop_;
  std::string input_;         ///< Read and not yet sent.
  std::size_t searched_ = 0;  ///< How much of `input_` is known to hold no line feed.
  bool inputEnded_ = false;
  std::size_t lineNumber_ = 0;
  std::size_t underWay_ = 0;
  std::string output_;  ///< Replies, of which `written_` bytes are out.
  std::size_t written_ = 0;
  bool outputClosed_ = false;
  bool unreachable_ = false;
  int outputError_ = 0;  ///< Of output that could not be written although it has a reader.
};

ExitStatus Session::run() {
  // A reader that goes away is an end like any other, and is seen where it is written to.
  (void)::signal(SIGPIPE, SIG_IGN);
  loop_.watch({STDIN_FILENO,
               [this] { return mayRead() ? std::optional<short>(POLLIN) : std::nullopt; },
               [this](short) { read(); }});
  loop_.watch({STDOUT_FILENO,
               [this] { return std::optional<short>(output_.empty() ? short{0} : POLLOUT); },
               [this](short events) { write(events); }});
  loop_.run([this] {
    sendLines();
    return isOver();
  });
  if (outputError_ != 0) {
    console::printError(console::outputErrorText(outputError_));
    return ExitStatus::refused;
  }
  return unreachable_ ? ExitStatus::unreachable : ExitStatus::done;
}

void Session::read() {
  std::array<char, 65'536> chunk;
  const ssize_t count = ::read(STDIN_FILENO, chunk.data(), chunk.size());
  if (count > 0) {
    keep({chunk.data(), static_cast<std::size_t>(count)});
  } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
    inputEnded_ = true;
    if (!input_.empty() && !input_.ends_with('\n')) input_.push_back('\n');
  }
}

void Session::keep(std::string_view bytes) {
  const std::size_t lineEnd = bytes.find('\n');
  const bool isInsideLine = input_.find('\n', searched_) == std::string::npos;
  if (isInsideLine && input_.size() >= longestLine) {
    if (lineEnd == std::string_view::npos) return;
    bytes.remove_prefix(lineEnd);
  }
  input_.append(bytes);
}

void Session::sendLines() {
  std::size_t start = 0;
  while (underWay_ < maximumUnderWay) {
    const std::size_t end = input_.find('\n', std::max(start, searched_));
    if (end == std::string::npos) {
      searched_ = input_.size();
      break;
    }
    send(std::string_view(input_).substr(start, end - start));
    start = end + 1;
  }
  input_.erase(0, start);
  searched_ -= std::min(searched_, start);
}

void Session::send(std::string_view line) {
  const SessionLine parsed = parseSessionLine(line);
  ++underWay_;
  transport_.call(parsed.method, parsed.body, [this, number = ++lineNumber_](CallReply reply) {
    --underWay_;
    if (!reply) unreachable_ |= reply.error().category == CallError::Category::unreachable;
    output_ += formatSessionReply(number, reply);
  });
}

void Session::write(short events) {
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
  }
}

}  // namespace

CommandResult runSession(const Arguments& arguments) {
  const auto transport = openTransport();
  if (!transport) return reportError(transport.error(), arguments.has(jsonOption.name));
  return Session(**transport).run();
}

}  // namespace tessaloom
