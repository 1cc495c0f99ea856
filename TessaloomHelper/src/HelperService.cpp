#include "TessaloomHelper/HelperService.h"

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

using Outcome = std::expected<Bytes, ReplyError>;

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
    return helperError(decoding, error.errorCase(), error);
  } catch (const HelperDTOError& error) {
    return helperError(decoding, error.errorCase(), error);
  } catch (const EncodingError& error) {
    return helperError(encoding, error.kind(), error);
  } catch (const std::bad_alloc&) {
    return helperError(encoding, unexpectedFailureCode, "The helper is out of memory.");
  } catch (const std::exception& error) {
    return helperError(encoding, unexpectedFailureCode, error);
  }
}

// The exception being handled, as the error of a reply. When there is no memory even for its texts,
// the error goes without them.
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
Bytes encoded(const ServiceContext& context, const Record& record) {
  Bytes bytes = HelperCoding::makeEncoder().encode(record);
  if (bytes.size() > context.maximumReplyBytes) {
    throw EncodingError(EncodingError::Kind::replyTooLarge,
                        "The reply has " + std::to_string(bytes.size()) + " bytes, more than " +
                            std::to_string(context.maximumReplyBytes) + ".");
  }
  return bytes;
}

template <class Record>
Outcome encoded(const ServiceContext& context,
                const std::expected<Record, GenerationErrorPayload>& result) {
  if (!result) return std::unexpected(generationError(result.error()));
  return encoded(context, *result);
}

// Replies with the record that `work` makes; `confirm` runs once it is encoded, before the reply.
// Every exception ends here.
template <class Work, class Confirm>
void answer(const ServiceContext& context, const DataReply& reply, Work work, Confirm confirm) {
  Outcome outcome;
  try {
    outcome = encoded(context, work());
    confirm();
  } catch (...) {
    outcome = std::unexpected(currentError());
  }
  reply(std::move(outcome));
}

template <class Work>
void answer(const ServiceContext& context, const DataReply& reply, Work work) {
  answer(context, reply, work, [] {});
}

// A method with a request that answers before it returns.
template <class Request, class Work>
void answer(const ServiceContext& context, const Bytes& body, const DataReply& reply, Work work) {
  answer(context, reply, [&] { return work(HelperCoding::makeDecoder().decode<Request>(body)); });
}

// A method with a request that is decoded here and worked on elsewhere, for as long as an engine
// takes.
template <class Request, class Work>
void answerConcurrently(const ServiceContext& context, const Bytes& body, const DataReply& reply,
                        Work work) {
  try {
    context.tasks.runConcurrently(
        QualityOfService::userInitiated,
        [&context, request = HelperCoding::makeDecoder().decode<Request>(body), reply, work,
         accepted = context.coordinator.accept()] {
          answer(context, reply, [&] { return work(context.coordinator, request); });
        });
  } catch (...) {
    reply(std::unexpected(currentError()));
  }
}

}  // namespace

HelperService::HelperService(const ServiceContext& context) : context_(context) {}

HelperService::~HelperService() = default;

void HelperService::protocolVersion(VersionReply reply) {
  reply(HelperConstants::protocolVersion);
}

void HelperService::listProcesses(DataReply reply) {
  std::vector<RawProcess> rows;
  auto list = [&] {
    rows = listRawProcesses(context_.kernel);
    Instant now = context_.clock();
    std::vector<ProcessSample> samples;
    samples.reserve(rows.size());
    for (const RawProcess& row : rows) samples.push_back(makeProcessSample(row, now));
    return samples;
  };
  // A listing that the editor cannot get authorises nothing. Its age counts from here, so that the
  // time it took does not shorten the editor's.
  auto record = [&] {
    std::vector<ProcessIdentity> identities;
    identities.reserve(rows.size());
    for (const RawProcess& row : rows) {
      identities.push_back({.pid = row.pid, .startSec = row.startSec, .startUSec = row.startUSec});
    }
    provenance_.record(identities, context_.clock());
  };
  answer(context_, reply, list, record);
}

void HelperService::killProcess(Bytes request, DataReply reply) {
  answer<KillRequest>(context_, request, reply, [this](const KillRequest& decoded) {
    return tessaloom::killProcess(decoded, context_.kernel, provenance_, context_.clock);
  });
}

void HelperService::listListeningPorts(DataReply reply) {
  answer(context_, reply, [this] { return tessaloom::listListeningPorts(context_.kernel); });
}

void HelperService::helperCapabilities(DataReply reply) {
  answer(context_, reply, [this] {
    return HelperCapabilities{
        .names = {std::string(HelperCapabilityNames::textGeneration)},
        .helperVersion = DisplayString::singleLine(context_.shortVersion, shortVersionLimit)};
  });
}

void HelperService::generateText(Bytes request, DataReply reply) {
  answerConcurrently<GenerationRequest>(
      context_, request, reply,
      [](const GenerationCoordinator& coordinator, const GenerationRequest& decoded) {
        return coordinator.generate(decoded);
      });
}

void HelperService::cancelGeneration(Bytes request, DataReply reply) {
  answer<GenerationCancelRequest>(context_, request, reply,
                                  [this](const GenerationCancelRequest& decoded) {
                                    return KillResult{context_.coordinator.cancel(decoded)};
                                  });
}

void HelperService::quitIfOutdated(DataReply reply) {
  bool replaced = false;
  answer(context_, reply, [&] {
    replaced = context_.exitWhenIdle.isExecutableReplaced();
    return HelperFreshness(replaced, replaced);
  });
  // The reply is on its way before the helper starts to leave.
  if (replaced) context_.exitWhenIdle.scheduleExitWhenIdle(ExitWhenIdle::firstCheck);
}

void HelperService::generationEngineStatus(Bytes request, DataReply reply) {
  answerConcurrently<EngineStatusRequest>(
      context_, request, reply,
      [](const GenerationCoordinator& coordinator, const EngineStatusRequest& decoded) {
        return coordinator.engineStatus(decoded);
      });
}

}  // namespace tessaloom
