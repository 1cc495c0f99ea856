#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "HelperProtocol/ProcessMessages.h"

/// Dates as message bodies carry them: 2026-11-21T10:00:00Z, to the second, in UTC.
namespace tessaloom::ISO8601 {

/// The second that holds the instant; nothing outside the years 0 to 9999.
std::optional<std::string> string(Instant instant);

/// The instant of a date in exactly this form that the calendar knows; nothing for any other text.
std::optional<Instant> parse(std::string_view text);

}  // namespace tessaloom::ISO8601
