#pragma once

#include <string>
#include <string_view>

#include "Transport.h"

namespace tessaloom {

/// Whether an error of this name means that no helper received the call (the bus, or what starts
/// services for it, sent the error) or that the helper disconnected.
bool isUnreachable(std::string_view errorName);

/// What a person can do about an error of the bus; empty where the error says enough.
std::string busAdvice(const CallError& error);

}  // namespace tessaloom
