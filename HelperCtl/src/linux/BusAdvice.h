#pragma once

#include <string>
#include <string_view>

#include "Transport.h"

namespace tessaloom {

/// Whether an error of this name means that no helper took the call: the bus or whoever starts
/// services made it, or the helper went away.
bool isUnreachable(std::string_view errorName);

/// What a person can do about an error of the bus; empty where the error says enough.
std::string busAdvice(const CallError& error);

}  // namespace tessaloom
