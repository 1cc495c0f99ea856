#pragma once

#include <cstdint>
#include <string_view>

namespace tessaloom {

/// Names and numbers that the helper and its callers share.
namespace HelperConstants {

/// The Mach service on macOS and the well-known bus name on Linux.
inline constexpr std::string_view machServiceName = "group.com.brindlemoor.Tessaloom.helper";

/// Where the service is on the bus, and its D-Bus interface; `methods` lists the methods.
inline constexpr const char* objectPath = "/com/brindlemoor/Tessaloom/Helper";
inline constexpr const char* interfaceName = "com.brindlemoor.Tessaloom.HelperServicing";

/// The bare integer that the version method replies with; only callers compare it.
inline constexpr std::int64_t protocolVersion = 1;

/// Domain of decoding and encoding errors in a reply.
inline constexpr std::string_view errorDomain = "com.brindlemoor.Tessaloom.helper";

/// Domain of generation failures in a reply; their code is always 1.
inline constexpr std::string_view generationErrorDomain = "com.brindlemoor.Tessaloom.generation";
inline constexpr std::int64_t generationErrorCode = 1;

}  // namespace HelperConstants

namespace HelperCapabilityNames {

inline constexpr std::string_view textGeneration = "textGeneration.v1";

}  // namespace HelperCapabilityNames

}  // namespace tessaloom
