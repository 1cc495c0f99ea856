#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tessaloom {

/// The value of `key` in the group `[group]` of a key file (the format of XDG Desktop Entries);
/// nullopt unless it is there exactly once, because two readers might disagree about which one
/// counts.
std::optional<std::string> keyFileValue(std::string_view text, std::string_view group,
                                        std::string_view key);

}  // namespace tessaloom
