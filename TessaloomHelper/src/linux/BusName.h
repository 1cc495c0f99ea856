#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "HelperProtocol/linux/BusRequests.h"

namespace tessaloom {

/// The helper's ownership of its well-known name, as the bus itself reports it. On the bus's thread
/// only.
class BusName {
 public:
  BusName(BusRequests& requests, std::string name);

  /// Asks the bus for the name. Has no effect while another request is under way.
  void acquire();
  /// Gives the name back to the bus. Has no effect unless it is owned.
  void release();

  bool isOwned() const { return state_ == State::owned; }
  /// Whether the bus has not replied yet to the last request.
  bool isPending() const { return state_ == State::acquiring || state_ == State::releasing; }
  /// Why the name could not be acquired the last time; nullopt if it could.
  const std::optional<std::string>& failure() const { return failure_; }

 private:
  enum class State : std::uint8_t { none, acquiring, owned, releasing };

  void receiveAcquired(sd_bus_message* reply);
  void fail(std::string reason);

  BusRequests& requests_;
  std::string name_;
  State state_ = State::none;
  std::optional<std::string> failure_;
  BusRequest request_;
};

}  // namespace tessaloom
