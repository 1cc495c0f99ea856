#include "EventLoop.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <system_error>

#include "TLFoundation/PollTimeout.h"

namespace tessaloom {
namespace {

std::optional<EventLoop::Clock::time_point> earlier(std::optional<EventLoop::Clock::time_point> a,
                                                    std::optional<EventLoop::Clock::time_point> b) {
  if (!a || !b) return a ? a : b;
  return std::min(*a, *b);
}

}  // namespace

void EventLoop::every(std::chrono::milliseconds interval, std::function<void()> tick) {
  tickers_.push_back({interval, std::move(tick), Clock::now() + interval});
}

void EventLoop::run(const std::function<bool()>& done, std::optional<Clock::time_point> deadline) {
  while (!done()) {
    if (deadline && Clock::now() >= *deadline) return;
    waitOnce(deadline);
    transport_.process();
    runTickers();
  }
}

void EventLoop::waitOnce(std::optional<Clock::time_point> deadline) {
  const Transport::Readiness readiness = transport_.readiness();
  std::vector<pollfd> polled{{readiness.descriptor, readiness.events, 0}};
  std::vector<std::size_t> owners;
  for (std::size_t i = 0; i < watches_.size(); ++i) {
    const std::optional<short> events = watches_[i].events();
    if (!events) continue;
    polled.push_back({watches_[i].descriptor, *events, 0});
    owners.push_back(i);
  }
  std::optional<Clock::time_point> until = earlier(deadline, readiness.deadline);
  for (const Ticker& ticker : tickers_) until = earlier(until, ticker.next);

  if (::poll(polled.data(), static_cast<nfds_t>(polled.size()), until ? pollTimeout(*until) : -1) <
      0) {
    if (errno == EINTR) return;
    throw std::system_error(errno, std::generic_category(), "poll");
  }
  for (std::size_t i = 0; i < owners.size(); ++i) {
    if (polled[i + 1].revents != 0) watches_[owners[i]].ready(polled[i + 1].revents);
  }
}

void EventLoop::runTickers() {
  const Clock::time_point now = Clock::now();
  for (Ticker& ticker : tickers_) {
    if (now < ticker.next) continue;
    ticker.next = now + ticker.interval;
    ticker.tick();
  }
}

}  // namespace tessaloom
