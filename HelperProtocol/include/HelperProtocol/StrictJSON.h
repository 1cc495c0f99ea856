#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

/// JSON as RFC 8259 says, read strictly: one value and nothing after it (a NUL is a byte like any
/// other, and wrong), valid UTF-8, no lone surrogate escapes, no nesting deeper than
/// `maximumDepth`. A number written with a fraction or an exponent whose value is integral and fits
/// 64 bits is stored as that integer, exactly; other fractions as double. Of duplicate keys the
/// last one counts.
namespace tessaloom::StrictJSON {

inline constexpr int maximumDepth = 512;

/// The value, or nothing when the text breaks a rule. Never throws for any text; linear in its
/// length.
std::optional<nlohmann::json> parse(std::string_view text);

/// An object or an array as compact JSON text; nothing for a bare string, number, boolean or null,
/// which no message may consist of.
std::optional<std::string> serialise(const nlohmann::json& value);

}  // namespace tessaloom::StrictJSON
