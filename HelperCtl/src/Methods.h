#pragma once

#include <array>
#include <string_view>

namespace tessaloom {

/// One method of the helper as `call` and `session` name it.
struct Method {
  std::string_view name;
  bool takesBody;
};

namespace methods {
inline constexpr std::string_view protocolVersion = "ProtocolVersion";
inline constexpr std::string_view listProcesses = "ListProcesses";
inline constexpr std::string_view killProcess = "KillProcess";
inline constexpr std::string_view listListeningPorts = "ListListeningPorts";
inline constexpr std::string_view helperCapabilities = "HelperCapabilities";
inline constexpr std::string_view generateText = "GenerateText";
inline constexpr std::string_view cancelGeneration = "CancelGeneration";
inline constexpr std::string_view quitIfOutdated = "QuitIfOutdated";
inline constexpr std::string_view generationEngineStatus = "GenerationEngineStatus";
}  // namespace methods

inline constexpr std::array allMethods{
    Method{methods::protocolVersion, false},
    Method{methods::listProcesses, false},
    Method{methods::killProcess, true},
    Method{methods::listListeningPorts, false},
    Method{methods::helperCapabilities, false},
    Method{methods::generateText, true},
    Method{methods::cancelGeneration, true},
    Method{methods::quitIfOutdated, false},
    Method{methods::generationEngineStatus, true},
};

/// The method of that name; null for one that this client does not know.
constexpr const Method* findMethod(std::string_view name) {
  for (const Method& method : allMethods) {
    if (method.name == name) return &method;
  }
  return nullptr;
}

}  // namespace tessaloom
