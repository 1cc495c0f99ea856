#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <systemd/sd-bus.h>

#include "HelperProtocol/Reply.h"

namespace tessaloom {

// How a reply's error is sent over the bus: its name says what failed, its first argument is the
// localized description, its second an a{sv} with `domain` (s), `code` (x) and, for a failed
// generation, `kind` (s).

/// The D-Bus name of an error.
std::string busErrorName(const ReplyError& error);

/// Appends the second argument. Returns a negative errno on failure.
int appendErrorDetails(sd_bus_message* reply, const ReplyError& error);

struct BusErrorDetails {
  std::optional<std::string> domain;
  std::optional<std::int64_t> code;
  std::optional<std::string> kind;
};

/// Reads the second argument of an error; what is absent or malformed stays absent.
BusErrorDetails readErrorDetails(sd_bus_message* error);

}  // namespace tessaloom
