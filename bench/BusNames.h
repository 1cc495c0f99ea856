#pragma once

// The helper's place on the bus, and the echo service's, which differs in its name alone.
inline constexpr const char* helperName = "group.com.brindlemoor.Tessaloom.helper";
inline constexpr const char* echoName = "com.brindlemoor.Tessaloom.Echo";
inline constexpr const char* objectPath = "/com/brindlemoor/Tessaloom/Helper";
inline constexpr const char* interfaceName = "com.brindlemoor.Tessaloom.HelperServicing";
