#pragma once

#include "HelperProtocol/HelperConstants.h"

// The helper's name on the bus, and the echo service's, which differs in nothing else.
inline constexpr const char* helperName = tessaloom::HelperConstants::machServiceName.data();
inline constexpr const char* echoName = "com.brindlemoor.Tessaloom.Echo";
