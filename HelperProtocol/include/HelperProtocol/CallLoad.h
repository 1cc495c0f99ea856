#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

#include "HelperProtocol/Methods.h"

namespace tessaloom {

struct CallWeight {
  Method::Kind kind;
  std::size_t bytes;  ///< Of the request.
};

/// Counts the unanswered calls of one process, over all of its connections, and decides whether the
/// helper accepts another. The limits stop accidents and floods; they are far above the three
/// generations that the service itself runs at once.
class CallLoad {
 public:
  static constexpr std::size_t maximumBytes = 16UL * 1'048'576;  ///< Of each kind.
  /// In the order of the kinds.
  static constexpr std::array<std::size_t, Method::kindCount> maximumCalls{64, 64, 16, 16, 16};

  bool fits(CallWeight call) const {
    const auto& [calls, bytes] = sums_[std::to_underlying(call.kind)];
    return calls < maximumCalls[std::to_underlying(call.kind)] && bytes <= maximumBytes &&
           call.bytes <= maximumBytes - bytes;
  }

  bool has(Method::Kind kind) const { return sums_[std::to_underlying(kind)].calls > 0; }
  bool isEmpty() const {
    return std::ranges::all_of(sums_, [](const Sum& sum) { return sum.calls == 0; });
  }

  void add(CallWeight call) {
    auto& [calls, bytes] = sums_[std::to_underlying(call.kind)];
    ++calls;
    bytes += call.bytes;
  }

  void remove(CallWeight call) {
    auto& [calls, bytes] = sums_[std::to_underlying(call.kind)];
    --calls;
    bytes -= call.bytes;
  }

 private:
  struct Sum {
    std::size_t calls = 0;
    std::size_t bytes = 0;
  };

  std::array<Sum, Method::kindCount> sums_{};
};

}  // namespace tessaloom
