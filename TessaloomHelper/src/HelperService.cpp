#include "TessaloomHelper/HelperService.h"

#include <algorithm>
#include <array>
#include <exception>
#include <expected>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "HelperCore/ListeningPorts.h"
#include "HelperCore/ProcessIdentity.h"
#include "HelperCore/ProcessKill.h"
#include "HelperCore/ProcessListing.h"
#include "HelperProtocol/CodingError.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/HelperCapabilities.h"
#include "HelperProtocol/HelperCoding.h"
#include "HelperProtocol/HelperConstants.h"
#include "HelperProtocol/HelperDTOError.h"
#include "HelperProtocol/HelperFreshness.h"
#include "HelperProtocol/ProcessMessages.h"
#include "TLFoundation/DisplayString.h"

namespace tessaloom {

namespace {

constexpr std::int64_t shortVersionLimit = 32;  // Unicode scalars.
constexpr std::int64_t descriptionLimit = 500;  // Unicode scalars.
constexpr std::int64_t unexpectedFailureCode = 0;

ReplyError helperError(ReplyError::Category category, std::int64_t code,
                       std::string_view description) {
  return ReplyError{
      .category = category,
      .domain = std::string(HelperConstants::errorDomain),
      .code = code,
      .localizedDescription = DisplayString::singleLine(description, descriptionLimit),
      .kind = std::nullopt};
}

template <class Code>
ReplyError helperError(ReplyError::Category category, Code code, const std::exception& error) {
  return helperError(category, static_cast<std::int64_t>(code), error.what());
}

ReplyError generationError(const GenerationErrorPayload& failure) {
  std::string kind(wireValue(failure.kind));
  return ReplyError{.category = ReplyError::Category::generation,
                    .domain = std::string(HelperConstants::generationErrorDomain),
                    .code = HelperConstants::generationErrorCode,
                    .localizedDescription =
                        DisplayString::singleLine(failure.detail.value_or(kind), descriptionLimit),
                    .kind = kind};
}

ReplyError describeCurrentException() {
  using enum ReplyError::Category;
  try {
    throw;
  } catch (const DecodingError& error) {
    return helperError(decoding, error.kind(), error);
  } catch (const GenerationDTOError& error) {
    return helperError(decoding, error.kind(), error);
  } catch (const HelperDTOError& error) {
    return helperError(decoding, error.kind(), error);
  } catch (const EncodingError& error) {
    return helperError(encoding, error.kind(), error);
  } catch (const std::bad_alloc&) {
    return helperError(encoding, unexpectedFailureCode, "The helper is out of memory.");
  } catch (const std::exception& error) {
    return helperError(encoding, unexpectedFailureCode, error);
  }
}

/// The exception being handled, as the error of a reply. When there is no memory even for its
/// texts, the error goes without them.
ReplyError currentError() noexcept {
  try {
    return describeCurrentException();
  } catch (...) {
    return ReplyError{.category = ReplyError::Category::encoding,
                      .domain = {},
                      .code = unexpectedFailureCode,
                      .localizedDescription = {},
                      .kind = std::nullopt};
  }
}

template <class Record>
Reply encoded(const ServiceContext& context, const Record& record) {
  Bytes bytes = HelperCoding::makeEncoder().encode(record);
  if (bytes.size() > context.maximumReplyBytes) {
    throw EncodingError(EncodingError::Kind::replyTooLarge,
                        "The reply has " + std::to_string(bytes.size()) + " bytes, more than " +
                            std::to_string(context.maximumReplyBytes) + ".");
  }
  return bytes;
}

Reply encoded(const ServiceContext& /*context*/, std::int64_t number) {
  return number;
}

template <class Record>
Reply encoded(const ServiceContext& context,
              const std::expected<Record, GenerationErrorPayload>& result) {
  if (!result) return generationError(result.error());
  return encoded(context, *result);
}

/// Replies with what `work` returns; `confirm` runs once it is encoded, before the reply. Every
/// exception ends here.
template <class Work, class Confirm>
void answer(const ServiceContext& context, const ReplyHandler& reply, Work work, Confirm confirm) {
  Reply outcome;
  try {
    outcome = encoded(context, work());
    confirm();
  } catch (...) {
    outcome = currentError();
  }
  reply(std::move(outcome));
}

template <class Work>
void answer(const ServiceContext& context, const ReplyHandler& reply, Work work) {
  answer(context, reply, work, [] {});
}

struct Connection {
  const ServiceContext& context;
  ProvenanceCache& provenance;
};

// What each method does with its request. Those that take a Connection run on its queue; those that
// run an engine have no connection, because it may be gone before they are done.
namespace Handlers {

std::int64_t protocolVersion(Connection /*connection*/) {
  return HelperConstants::protocolVersion;
}

void listProcesses(Connection connection, std::string_view /*request*/, const ReplyHandler& reply) {
  const ServiceContext& context = connection.context;
  std::vector<RawProcess> rows;
  auto list = [&] {
    rows = listRawProcesses(context.kernel);
    const Instant now = context.kernel.processClockTime();
    std::vector<ProcessSample> samples;
    samples.reserve(rows.size());
    for (const RawProcess& row : rows) samples.push_back(makeProcessSample(row, now));
    return samples;
  };
  // A listing that the editor cannot get authorizes nothing. Its age counts from here, so that the
  // time it took does not shorten the editor's.
  auto record = [&] {
    std::vector<ProcessIdentity> identities;
    identities.reserve(rows.size());
    for (const RawProcess& row : rows) {
      identities.push_back({.pid = row.pid, .startSec = row.startSec, .startUSec = row.startUSec});
    }
    connection.provenance.record(identities, context.kernel.wallClockTime());
  };
  answer(context, reply, list, record);
}

KillResult killProcess(Connection connection, const KillRequest& request) {
  return tessaloom::killProcess(request, connection.context.kernel, connection.provenance);
}

std::vector<PortSample> listListeningPorts(Connection connection) {
  return tessaloom::listListeningPorts(connection.context.kernel);
}

HelperCapabilities helperCapabilities(Connection connection) {
  return {.names = {std::string(HelperCapabilityNames::textGeneration)},
          .helperVersion =
              DisplayString::singleLine(connection.context.shortVersion, shortVersionLimit)};
}

std::expected<GenerationResult, GenerationErrorPayload> generateText(
    const ServiceContext& context, const GenerationRequest& request) {
  return context.coordinator.generate(request);
}

KillResult cancelGeneration(Connection connection, const GenerationCancelRequest& request) {
  return {.succeeded = connection.context.coordinator.cancel(request)};
}

void quitIfOutdated(Connection connection, std::string_view /*request*/,
                    const ReplyHandler& reply) {
  ExitWhenIdle& exit = connection.context.exitWhenIdle;
  bool isReplaced = false;
  answer(connection.context, reply, [&] {
    isReplaced = exit.isExecutableReplaced();
    return HelperFreshness(isReplaced, isReplaced);
  });
  // The reply is on its way before the helper starts to exit.
  if (isReplaced) exit.scheduleExitWhenIdle(ExitWhenIdle::firstCheck);
}

EngineStatus generationEngineStatus(const ServiceContext& context,
                                    const EngineStatusRequest& request) {
  return context.coordinator.engineStatus(request);
}

}  // namespace Handlers

template <class Record>
Record handle(Record (*handler)(Connection), Connection connection, std::string_view /*body*/) {
  return handler(connection);
}

template <class Record, class Request>
Record handle(Record (*handler)(Connection, const Request&), Connection connection,
              std::string_view body) {
  return handler(connection, HelperCoding::makeDecoder().decode<Request>(body));
}

template <auto handler>
void atOnce(Connection connection, std::string_view body, const ReplyHandler& reply) {
  answer(connection.context, reply, [&] { return handle(handler, connection, body); });
}

template <class Record, class Request>
void start(Record (*handler)(const ServiceContext&, const Request&), const ServiceContext& context,
           std::string_view body, const ReplyHandler& reply) {
  try {
    context.runEngineCall([handler, &context,
                           request = HelperCoding::makeDecoder().decode<Request>(body), reply,
                           accepted = context.coordinator.accept()] {
      answer(context, reply, [&] { return handler(context, request); });
    });
  } catch (...) {
    reply(currentError());
  }
}

/// Decodes the request here and does the work elsewhere, for as long as an engine takes.
template <auto handler>
void concurrently(Connection connection, std::string_view body, const ReplyHandler& reply) {
  start(handler, connection.context, body, reply);
}

struct Binding {
  const Method& method;
  void (*call)(Connection connection, std::string_view body, const ReplyHandler& reply);
};

constexpr std::array bindings{
    Binding{methodNamed("ProtocolVersion"), atOnce<Handlers::protocolVersion>},
    Binding{methodNamed("ListProcesses"), Handlers::listProcesses},
    Binding{methodNamed("KillProcess"), atOnce<Handlers::killProcess>},
    Binding{methodNamed("ListListeningPorts"), atOnce<Handlers::listListeningPorts>},
    Binding{methodNamed("HelperCapabilities"), atOnce<Handlers::helperCapabilities>},
    Binding{methodNamed("GenerateText"), concurrently<Handlers::generateText>},
    Binding{methodNamed("CancelGeneration"), atOnce<Handlers::cancelGeneration>},
    Binding{methodNamed("QuitIfOutdated"), Handlers::quitIfOutdated},
    Binding{methodNamed("GenerationEngineStatus"), concurrently<Handlers::generationEngineStatus>},
};

constexpr bool isBound(const Method& method) {
  return std::ranges::any_of(bindings,
                             [&](const Binding& binding) { return &binding.method == &method; });
}
static_assert(std::ranges::all_of(methods, isBound), "a method has no handler");

}  // namespace

HelperService::HelperService(const ServiceContext& context) : context_(context) {}

void HelperService::call(const Method& method, std::string_view request,
                         const ReplyHandler& reply) {
  for (const Binding& binding : bindings) {
    if (&binding.method == &method) return binding.call({context_, provenance_}, request, reply);
  }
}

}  // namespace tessaloom
