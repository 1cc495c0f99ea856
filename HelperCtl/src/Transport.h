#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "HelperProtocol/Reply.h"

namespace tessaloom {

/// Why a call has no body.
struct CallError {
  enum class Category : std::uint8_t {
    failed,       ///< The helper, what guards it, or this program itself reports an error.
    unreachable,  ///< No helper received the call, or it disconnected before it answered.
  };

  Category category;
  std::string name;     ///< The error's name on the bus, or one made of domain and kind.
  std::string message;  ///< As it came; not yet fit for a terminal.
  std::optional<std::string> domain = std::nullopt;
  std::optional<std::int64_t> code = std::nullopt;
  std::optional<std::string> kind = std::nullopt;  ///< The failure kind of a generation.
  /// What a person can do about it on this platform; may be empty.
  std::string advice = {};  // NOLINT(readability-redundant-member-init): may be left out.

  friend bool operator==(const CallError&, const CallError&) = default;
};

/// What to do about a reply that is not of the expected form.
inline constexpr const char* differentVersionsAdvice =
    "Install the helper and this program from the same version. After an upgrade, let the old "
    "helper exit: tessaloom-helperctl freshness";

/// The body of a reply as it came. The version method's bare integer is its decimal text.
using CallReply = std::expected<Bytes, CallError>;

/// One connection to the helper.
///
/// For one thread. Nothing blocks: the owner polls `readiness` and then calls `process`. Calls are
/// sent in the order they were made; replies may come in any order.
class Transport {
 public:
  using Handler = std::function<void(CallReply)>;

  /// What to wait for before the next `process`.
  struct Readiness {
    int descriptor;  ///< For poll(2), together with `events`; -1 for none.
    short events;
    std::optional<std::chrono::steady_clock::time_point> deadline;  ///< Process by then at latest.
  };

  virtual ~Transport() = default;

  /// Sends `body`, or no argument at all when there is none, to `method` (a name as in
  /// "GenerateText"). The handler is called exactly once, from `process` and never from `call`; it
  /// may make further calls. A call has no time limit. For a call that the transport cannot send,
  /// the handler gets an error like one of the helper's. Handlers that still wait when the
  /// transport is destroyed are not called.
  virtual void call(const std::string& method, const std::optional<Bytes>& body,
                    Handler handler) = 0;

  virtual Readiness readiness() = 0;
  virtual void process() = 0;
};

/// A connection to the current user's helper. Being connected does not mean that a helper runs: the
/// first call starts it where the platform can.
std::expected<std::unique_ptr<Transport>, CallError> openTransport();

}  // namespace tessaloom
