#include "linux/BusMethods.h"

#include <array>
#include <expected>
#include <utility>

namespace tessaloom {

namespace {

DataReply dataReply(const CallReply& reply) {
  return [reply](std::expected<Bytes, ReplyError> result) {
    if (result) {
      reply->answer(*std::move(result));
    } else {
      reply->answer(std::move(result).error());
    }
  };
}

template <void (HelperServicing::*method)(DataReply)>
void withoutRequest(HelperServicing& service, Bytes&& /*request*/, const CallReply& reply) {
  (service.*method)(dataReply(reply));
}

template <void (HelperServicing::*method)(Bytes, DataReply)>
void withRequest(HelperServicing& service, Bytes&& request, const CallReply& reply) {
  (service.*method)(std::move(request), dataReply(reply));
}

void protocolVersion(HelperServicing& service, Bytes&& /*request*/, const CallReply& reply) {
  service.protocolVersion([reply](std::int64_t version) { reply->answer(version); });
}

constexpr BusMethod question(const char* name, decltype(BusMethod::call) call) {
  return {.name = name, .hasRequest = false, .result = "ay", .kind = CallKind::brief, .call = call};
}

constexpr BusMethod request(const char* name, CallKind kind, decltype(BusMethod::call) call) {
  return {.name = name, .hasRequest = true, .result = "ay", .kind = kind, .call = call};
}

constexpr std::array methods{
    BusMethod{.name = "ProtocolVersion",
              .hasRequest = false,
              .result = "x",
              .kind = CallKind::brief,
              .call = protocolVersion},
    question("ListProcesses", withoutRequest<&HelperServicing::listProcesses>),
    request("KillProcess", CallKind::brief, withRequest<&HelperServicing::killProcess>),
    question("ListListeningPorts", withoutRequest<&HelperServicing::listListeningPorts>),
    question("HelperCapabilities", withoutRequest<&HelperServicing::helperCapabilities>),
    request("GenerateText", CallKind::engine, withRequest<&HelperServicing::generateText>),
    request("CancelGeneration", CallKind::cancellation,
            withRequest<&HelperServicing::cancelGeneration>),
    question("QuitIfOutdated", withoutRequest<&HelperServicing::quitIfOutdated>),
    request("GenerationEngineStatus", CallKind::engine,
            withRequest<&HelperServicing::generationEngineStatus>),
};

}  // namespace

std::span<const BusMethod> busMethods() {
  return methods;
}

}  // namespace tessaloom
