#pragma once

#include <string>

#include "Transport.h"

namespace tessaloom {

/// What a person can do about an error of the bus; empty where the error says enough.
std::string busAdvice(const CallError& error);

}  // namespace tessaloom
