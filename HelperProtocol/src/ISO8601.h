#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "TLFoundation/Instant.h"

/// Dates as message bodies carry them: 2026-11-21T10:00:00Z, to the second, in UTC.
namespace tessaloom::ISO8601 {

/// The second that holds the instant; nullopt outside the years 0 to 9999.
std::optional<std::string> string(Instant instant);

/// The instant of a date in this form, or with a numeric offset (+01:00 or +0100) instead of the Z;
/// nullopt for any other text and for a date that the calendar lacks.
std::optional<Instant> parse(std::string_view text);

}  // namespace tessaloom::ISO8601
