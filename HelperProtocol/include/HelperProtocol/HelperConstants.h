#pragma once

#include <cstdint>
#include <string_view>

namespace tessaloom {

/// What both ends of the channel agree on before the first message.
struct HelperConstants {
  HelperConstants() = delete;

  /// The Mach service on macOS and the well-known bus name on Linux.
  static constexpr std::string_view machServiceName = "group.com.brindlemoor.Tessaloom.helper";

  /// Answered as a bare integer by the version method; the helper compares it with nothing.
  static constexpr std::int64_t protocolVersion = 1;

  /// Domain of decoding and encoding errors in a reply.
  static constexpr std::string_view errorDomain = "com.brindlemoor.Tessaloom.helper";

  /// Domain of generation failures in a reply; their code is always 1.
  static constexpr std::string_view generationErrorDomain = "com.brindlemoor.Tessaloom.generation";
  static constexpr std::int64_t generationErrorCode = 1;
};

struct HelperCapabilityNames {
  HelperCapabilityNames() = delete;

  static constexpr std::string_view textGeneration = "textGeneration.v1";
};

}  // namespace tessaloom
