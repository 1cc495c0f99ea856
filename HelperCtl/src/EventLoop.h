#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

#include "Transport.h"

namespace tessaloom {

/// Waits for the transport, for other descriptors and for time, on one thread.
class EventLoop {
 public:
  using Clock = std::chrono::steady_clock;

  /// One descriptor besides the transport's.
  struct Watch {
    int descriptor;
    /// Asked before each wait: the events of poll(2) that matter now (POLLHUP waits for errors
    /// alone), or nullopt to leave the descriptor out.
    std::function<std::optional<short>()> events;
    std::function<void(short)> ready;  ///< Given the returned events.
  };

  explicit EventLoop(Transport& transport) : transport_(transport) {}

  void watch(Watch watch) { watches_.push_back(std::move(watch)); }

  /// Calls `tick` at this interval, the first time one interval from now.
  void every(std::chrono::milliseconds interval, std::function<void()> tick);

  /// Runs handlers until `done` returns true or `deadline` has passed.
  void run(const std::function<bool()>& done,
           std::optional<Clock::time_point> deadline = std::nullopt);

 private:
  struct Ticker {
    std::chrono::milliseconds interval;
    std::function<void()> tick;
    Clock::time_point next;
  };

  void waitOnce(std::optional<Clock::time_point> deadline);
  void runTickers();

  Transport& transport_;
  std::vector<Watch> watches_;
  std::vector<Ticker> tickers_;
};

}  // namespace tessaloom
