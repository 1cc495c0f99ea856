#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tessaloom {

/// One method of the service. The table `methods` is the interface: the service binds a handler to
/// each row, and both ends of both transports send and receive by it.
struct Method {
  enum class Kind : std::uint8_t {
    immediate,     ///< Replies from memory, without a system call or a wait.
    brief,         ///< Replies as soon as the result has been computed.
    generation,    ///< Replies once an engine has generated.
    probe,         ///< Replies once an engine has printed its version.
    cancellation,  ///< Ends an engine's run, and so must never wait for one.
  };
  static constexpr std::size_t kindCount = 5;

  const char* name;      ///< On the bus, and in the command-line client.
  const char* selector;  ///< In the Objective-C protocol.
  const char* request;   ///< The record in a call's body; null if a call carries none.
  const char* reply;     ///< What the reply is, in words: the record in its body, or the integer.
  const char* result;    ///< D-Bus signature of the reply: "ay" is a body.
  Kind kind;

  constexpr bool takesRequest() const { return request != nullptr; }
  static constexpr bool runsEngine(Kind kind) {
    return kind == Kind::generation || kind == Kind::probe;
  }
};

inline constexpr std::array methods{
    Method{"ProtocolVersion", "protocolVersionWithReply:", nullptr, "the integer 1", "x",
           Method::Kind::immediate},
    Method{"ListProcesses", "listProcessesWithReply:", nullptr, "array of ProcessSample", "ay",
           Method::Kind::brief},
    Method{"KillProcess", "killProcessWithRequest:reply:", "KillRequest", "KillResult", "ay",
           Method::Kind::brief},
    Method{"ListListeningPorts", "listListeningPortsWithReply:", nullptr, "array of PortSample",
           "ay", Method::Kind::brief},
    Method{"HelperCapabilities", "helperCapabilitiesWithReply:", nullptr, "HelperCapabilities",
           "ay", Method::Kind::immediate},
    Method{"GenerateText", "generateTextWithRequest:reply:", "GenerationRequest",
           "GenerationResult", "ay", Method::Kind::generation},
    Method{"CancelGeneration", "cancelGenerationWithRequest:reply:", "GenerationCancelRequest",
           "KillResult", "ay", Method::Kind::cancellation},
    Method{"QuitIfOutdated", "quitIfOutdatedWithReply:", nullptr, "HelperFreshness", "ay",
           Method::Kind::brief},
    Method{"GenerationEngineStatus", "generationEngineStatusWithRequest:reply:",
           "EngineStatusRequest", "EngineStatus", "ay", Method::Kind::probe},
};

/// The method with that name; null if there is none.
constexpr const Method* findMethod(std::string_view name) {
  for (const Method& method : methods) {
    if (method.name == name) return &method;
  }
  return nullptr;
}

/// The method with that name. A name that the table lacks does not compile.
consteval const Method& methodNamed(std::string_view name) {
  const Method* found = findMethod(name);
  if (found == nullptr) throw "no such method";
  return *found;
}

}  // namespace tessaloom
