#pragma once

#include <chrono>
#include <cstdint>
#include <exception>
#include <expected>
#include <optional>
#include <string>
#include <string_view>

#include "Console.h"
#include "HelperProtocol/HelperCoding.h"
#include "Transport.h"

namespace tessaloom {

/// How long a call that the helper answers at once, or after a short probe, may take.
inline constexpr std::chrono::seconds callTimeLimit{60};

/// The name of the error when a limit has passed.
inline constexpr std::string_view timedOutError = "timedOut";

/// Whether a person is told, after a few seconds, that there is no answer yet. Most calls take no
/// time.
enum class Wait : std::uint8_t { silent, announced };

/// Makes one call and waits for its reply. Without a limit it waits until the helper replies or
/// disconnects.
CallReply callAndWait(Transport& transport, std::string_view method,
                      const std::optional<Bytes>& body = std::nullopt,
                      std::optional<std::chrono::seconds> limit = callTimeLimit,
                      Wait wait = Wait::announced);

/// The same over a new connection.
CallReply callOnce(std::string_view method, const std::optional<Bytes>& body = std::nullopt,
                   std::optional<std::chrono::seconds> limit = callTimeLimit,
                   Wait wait = Wait::announced);

/// Says on standard error why a call failed: for a person with what to do about it, or, with
/// `json`, as one line holding an object {"error":{"name","domain","code","kind","message"}} of
/// what came.
ExitStatus reportError(const CallError& error, bool json);

/// Says in the same way that a reply is not the record that was expected, or that standard output
/// could not be written, with the errno.
ExitStatus reportUnreadableReply(std::string_view problem, bool json);
ExitStatus reportOutputError(int error, bool json);

/// The record of a reply's body, or what is wrong with the body.
template <class Record>
std::expected<Record, std::string> decodeReply(const Bytes& body) {
  try {
    return HelperCoding::makeDecoder().decode<Record>(body);
  } catch (const std::exception& error) {
    return std::unexpected(error.what());
  }
}

}  // namespace tessaloom
