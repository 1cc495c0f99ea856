#include "HelperProtocol/HelperCoding.h"

#include <optional>
#include <utility>
#include <vector>

#include "HelperProtocol/CodingError.h"
#include "HelperProtocol/EngineStatus.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/GenerationErrorPayload.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationResult.h"
#include "HelperProtocol/HelperCapabilities.h"
#include "HelperProtocol/HelperFreshness.h"
#include "HelperProtocol/ProcessMessages.h"
#include "HelperProtocol/StrictJSON.h"
#include "ISO8601.h"
#include "JSONReader.h"
#include "JSONWriter.h"
#include "TLFoundation/Unicode.h"
#include "WireValues.h"

namespace tessaloom {
namespace {

using Kind = DecodingError::Kind;

// Writing: one `write` for each type that a body may hold. Members are written in declared order.

void write(JSONWriter& writer, bool value) {
  writer.boolean(value);
}
void write(JSONWriter& writer, std::int32_t value) {
  writer.integer(value);
}
void write(JSONWriter& writer, std::int64_t value) {
  writer.integer(value);
}
void write(JSONWriter& writer, const std::string& value) {
  writer.string(value);
}
void write(JSONWriter& writer, const UUID& value) {
  writer.string(value.string());
}
void write(JSONWriter& writer, GenerationEngineID value) {
  writer.string(wireValue(value));
}
void write(JSONWriter& writer, GenerationShape value) {
  writer.string(wireValue(value));
}
void write(JSONWriter& writer, GenerationFailureKind value) {
  writer.string(wireValue(value));
}
void write(JSONWriter& writer, GenerationTimeout value) {
  writer.integer(value.seconds());
}
void write(JSONWriter& writer, ProcessID value) {
  writer.integer(value.value());
}
void write(JSONWriter& writer, Signal value) {
  writer.integer(std::to_underlying(value));
}

void write(JSONWriter& writer, Instant value) {
  const auto text = ISO8601::string(value);
  if (!text) writer.fail("is a date outside the years 0 to 9999");
  writer.string(*text);
}

template <class Elements>
void writeArray(JSONWriter& writer, const Elements& elements);

void write(JSONWriter& writer, const std::set<std::string>& values) {
  writeArray(writer, values);
}

template <class Element>
void write(JSONWriter& writer, const std::vector<Element>& values) {
  writeArray(writer, values);
}

template <class Value>
void member(JSONWriter& writer, std::string_view key, const Value& value);

template <class Value>
void member(JSONWriter& writer, std::string_view key, const std::optional<Value>& value) {
  if (value) member(writer, key, *value);
}

void write(JSONWriter& writer, const HelperCapabilities& record) {
  writer.beginObject();
  member(writer, "names", record.names);
  member(writer, "helperVersion", record.helperVersion);
  writer.endObject();
}

void write(JSONWriter& writer, const HelperFreshness& record) {
  writer.beginObject();
  member(writer, "isOutdated", record.isOutdated());
  member(writer, "willExit", record.willExit());
  writer.endObject();
}

void write(JSONWriter& writer, const GenerationRequest& record) {
  writer.beginObject();
  member(writer, "requestID", record.requestID());
  member(writer, "engine", record.engine());
  member(writer, "shape", record.shape());
  member(writer, "instructions", record.instructions());
  member(writer, "prompt", record.prompt());
  member(writer, "timeout", record.timeout());
  writer.endObject();
}

void write(JSONWriter& writer, const GenerationCancelRequest& record) {
  writer.beginObject();
  member(writer, "requestID", record.requestID);
  writer.endObject();
}

void write(JSONWriter& writer, const GeneratedFields& record) {
  writer.beginObject();
  member(writer, "itemDescription", record.itemDescription());
  member(writer, "tags", record.tags());
  member(writer, "globs", record.globs());
  member(writer, "alwaysApply", record.alwaysApply());
  writer.endObject();
}

void write(JSONWriter& writer, const GenerationTokens& record) {
  writer.beginObject();
  member(writer, "input", record.input);
  member(writer, "output", record.output);
  member(writer, "cachedInput", record.cachedInput);
  writer.endObject();
}

void write(JSONWriter& writer, const GenerationResult& record) {
  writer.beginObject();
  member(writer, "requestID", record.requestID);
  member(writer, "engine", record.engine);
  member(writer, "text", record.text);
  member(writer, "fields", record.fields);
  member(writer, "tokens", record.tokens);
  member(writer, "durationMilliseconds", record.durationMilliseconds);
  writer.endObject();
}

void write(JSONWriter& writer, const GenerationErrorPayload& record) {
  writer.beginObject();
  member(writer, "kind", record.kind);
  member(writer, "engine", record.engine);
  member(writer, "exitCode", record.exitCode);
  member(writer, "detail", record.detail);
  writer.endObject();
}

void write(JSONWriter& writer, const EngineStatusRequest& record) {
  writer.beginObject();
  member(writer, "engine", record.engine);
  writer.endObject();
}

void write(JSONWriter& writer, const EngineStatus& record) {
  writer.beginObject();
  member(writer, "engine", record.engine);
  member(writer, "binaryFound", record.binaryFound);
  member(writer, "authenticated", record.authenticated);
  member(writer, "version", record.version);
  writer.endObject();
}

void write(JSONWriter& writer, const KillRequest& record) {
  writer.beginObject();
  member(writer, "pid", record.pid);
  member(writer, "signal", record.signal);
  writer.endObject();
}

void write(JSONWriter& writer, const KillResult& record) {
  writer.beginObject();
  member(writer, "succeeded", record.succeeded);
  member(writer, "message", record.message);
  writer.endObject();
}

void write(JSONWriter& writer, const ProcessSample& record) {
  writer.beginObject();
  member(writer, "pid", record.pid());
  member(writer, "parentPID", record.parentPID());
  member(writer, "tty", record.tty());
  member(writer, "startedAt", record.startedAt());
  member(writer, "elapsedSeconds", record.elapsedSeconds());
  member(writer, "residentBytes", record.residentBytes());
  member(writer, "command", record.command());
  writer.endObject();
}

void write(JSONWriter& writer, const PortSample& record) {
  writer.beginObject();
  member(writer, "port", record.port());
  member(writer, "transport", record.transport());
  member(writer, "pid", record.pid());
  member(writer, "processName", record.processName());
  member(writer, "address", record.address());
  writer.endObject();
}

template <class Elements>
void writeArray(JSONWriter& writer, const Elements& elements) {
  writer.beginArray();
  for (const auto& element : elements) {
    writer.element();
    write(writer, element);
  }
  writer.endArray();
}

template <class Value>
void member(JSONWriter& writer, std::string_view key, const Value& value) {
  writer.key(key);
  write(writer, value);
}

// Reading: one specialisation for each type that a body may hold. Braced initialisation evaluates
// from left to right, so the members of a record are read in declared order.

template <class Value>
struct Reading;

template <class Value>
Value get(const JSONReader& reader) {
  return Reading<Value>::from(reader);
}

template <class Value>
Value required(const JSONReader& reader, std::string_view key) {
  return get<Value>(reader.required(key));
}

template <class Value>
std::optional<Value> optional(const JSONReader& reader, std::string_view key) {
  return reader.optional(key, [](const JSONReader& value) { return get<Value>(value); });
}

template <class Enum, std::size_t count>
Enum caseOf(const JSONReader& reader, const std::array<Enum, count>& cases) {
  if (const auto found = caseNamed(reader.string(), cases)) return *found;
  std::string names;
  for (const Enum one : cases) names.append(names.empty() ? "" : ", ").append(wireValue(one));
  reader.fail(Kind::dataCorrupted, "is not one of " + names);
}

template <>
struct Reading<bool> {
  static bool from(const JSONReader& reader) { return reader.boolean(); }
};

template <std::integral Integer>
struct Reading<Integer> {
  static Integer from(const JSONReader& reader) { return reader.integer<Integer>(); }
};

template <>
struct Reading<std::string> {
  static std::string from(const JSONReader& reader) { return reader.string(); }
};

template <>
struct Reading<std::set<std::string>> {
  static std::set<std::string> from(const JSONReader& reader) {
    std::set<std::string> values;
    reader.forEach([&](const JSONReader& element) { values.insert(element.string()); });
    return values;
  }
};

template <class Element>
struct Reading<std::vector<Element>> {
  static std::vector<Element> from(const JSONReader& reader) {
    std::vector<Element> values;
    values.reserve(reader.size());
    reader.forEach([&](const JSONReader& element) { values.push_back(get<Element>(element)); });
    return values;
  }
};

template <>
struct Reading<UUID> {
  static UUID from(const JSONReader& reader) {
    if (const auto uuid = UUID::parse(reader.string())) return *uuid;
    reader.fail(Kind::dataCorrupted, "is not a UUID");
  }
};

template <>
struct Reading<Instant> {
  static Instant from(const JSONReader& reader) {
    if (const auto instant = ISO8601::parse(reader.string())) return *instant;
    reader.fail(Kind::dataCorrupted, "is not a date of the form 2026-11-21T10:00:00Z");
  }
};

template <>
struct Reading<GenerationEngineID> {
  static GenerationEngineID from(const JSONReader& reader) {
    return caseOf(reader, allGenerationEngineIDs);
  }
};

template <>
struct Reading<GenerationShape> {
  static GenerationShape from(const JSONReader& reader) {
    return caseOf(reader, allGenerationShapes);
  }
};

template <>
struct Reading<GenerationFailureKind> {
  static GenerationFailureKind from(const JSONReader& reader) {
    return caseOf(reader, allGenerationFailureKinds);
  }
};

template <>
struct Reading<GenerationTimeout> {
  static GenerationTimeout from(const JSONReader& reader) {
    return GenerationTimeout(reader.integer<std::int64_t>());
  }
};

template <>
struct Reading<BoundedText> {
  static BoundedText from(const JSONReader& reader) { return BoundedText(reader.string()); }
};

template <>
struct Reading<ProcessID> {
  static ProcessID from(const JSONReader& reader) {
    return ProcessID(reader.integer<std::int32_t>());
  }
};

template <>
struct Reading<Signal> {
  static Signal from(const JSONReader& reader) {
    const auto number = reader.integer<std::int32_t>();
    for (const Signal signal : allSignals) {
      if (std::to_underlying(signal) == number) return signal;
    }
    reader.fail(Kind::dataCorrupted, "is not one of 2, 9, 15");
  }
};

template <>
struct Reading<HelperCapabilities> {
  static HelperCapabilities from(const JSONReader& reader) {
    return {.names = required<std::set<std::string>>(reader, "names"),
            .helperVersion = required<std::string>(reader, "helperVersion")};
  }
};

template <>
struct Reading<HelperFreshness> {
  static HelperFreshness from(const JSONReader& reader) {
    const bool isOutdated = required<bool>(reader, "isOutdated");
    return HelperFreshness::asRead(isOutdated, required<bool>(reader, "willExit"));
  }
};

template <>
struct Reading<GenerationRequest> {
  static GenerationRequest from(const JSONReader& reader) {
    auto instructions = required<BoundedText>(reader, "instructions");
    auto prompt = required<BoundedText>(reader, "prompt");
    instructions = BoundedText(instructions.value(), GenerationRequest::instructionsLimit);
    const auto requestID = required<UUID>(reader, "requestID");
    const auto engine = required<GenerationEngineID>(reader, "engine");
    const auto shape = required<GenerationShape>(reader, "shape");
    const auto timeout = required<GenerationTimeout>(reader, "timeout");
    return {requestID, engine, shape, instructions.value(), prompt.value(), timeout};
  }
};

template <>
struct Reading<GenerationCancelRequest> {
  static GenerationCancelRequest from(const JSONReader& reader) {
    return {.requestID = required<UUID>(reader, "requestID")};
  }
};

template <>
struct Reading<GeneratedFields> {
  static GeneratedFields from(const JSONReader& reader) {
    return GeneratedFields{required<std::string>(reader, "itemDescription"),
                           required<std::vector<std::string>>(reader, "tags"),
                           required<std::vector<std::string>>(reader, "globs"),
                           required<bool>(reader, "alwaysApply")};
  }
};

template <>
struct Reading<GenerationTokens> {
  static GenerationTokens from(const JSONReader& reader) {
    return {.input = required<std::int64_t>(reader, "input"),
            .output = required<std::int64_t>(reader, "output"),
            .cachedInput = required<std::int64_t>(reader, "cachedInput")};
  }
};

template <>
struct Reading<GenerationResult> {
  static GenerationResult from(const JSONReader& reader) {
    return {.requestID = required<UUID>(reader, "requestID"),
            .engine = required<GenerationEngineID>(reader, "engine"),
            .text = required<std::string>(reader, "text"),
            .fields = optional<GeneratedFields>(reader, "fields"),
            .tokens = optional<GenerationTokens>(reader, "tokens"),
            .durationMilliseconds = required<std::int64_t>(reader, "durationMilliseconds")};
  }
};

template <>
struct Reading<GenerationErrorPayload> {
  static GenerationErrorPayload from(const JSONReader& reader) {
    return {.kind = required<GenerationFailureKind>(reader, "kind"),
            .engine = required<GenerationEngineID>(reader, "engine"),
            .exitCode = optional<std::int32_t>(reader, "exitCode"),
            .detail = optional<std::string>(reader, "detail")};
  }
};

template <>
struct Reading<EngineStatusRequest> {
  static EngineStatusRequest from(const JSONReader& reader) {
    return {.engine = required<GenerationEngineID>(reader, "engine")};
  }
};

template <>
struct Reading<EngineStatus> {
  static EngineStatus from(const JSONReader& reader) {
    return {.engine = required<GenerationEngineID>(reader, "engine"),
            .binaryFound = required<bool>(reader, "binaryFound"),
            .authenticated = optional<bool>(reader, "authenticated"),
            .version = optional<std::string>(reader, "version")};
  }
};

template <>
struct Reading<KillRequest> {
  static KillRequest from(const JSONReader& reader) {
    return {.pid = required<ProcessID>(reader, "pid"),
            .signal = required<Signal>(reader, "signal")};
  }
};

template <>
struct Reading<KillResult> {
  static KillResult from(const JSONReader& reader) {
    return {.succeeded = required<bool>(reader, "succeeded"),
            .message = optional<std::string>(reader, "message")};
  }
};

template <>
struct Reading<ProcessSample> {
  static ProcessSample from(const JSONReader& reader) {
    return ProcessSample{required<std::int32_t>(reader, "pid"),
                         required<std::int32_t>(reader, "parentPID"),
                         optional<std::string>(reader, "tty"),
                         required<Instant>(reader, "startedAt"),
                         required<std::int64_t>(reader, "elapsedSeconds"),
                         required<std::int64_t>(reader, "residentBytes"),
                         required<std::string>(reader, "command")};
  }
};

template <>
struct Reading<PortSample> {
  static PortSample from(const JSONReader& reader) {
    return PortSample{
        required<std::int64_t>(reader, "port"), required<std::string>(reader, "transport"),
        required<std::int32_t>(reader, "pid"), required<std::string>(reader, "processName"),
        required<std::string>(reader, "address")};
  }
};

}  // namespace

template <class Record>
std::string JSONEncoder::encode(const Record& record) const {
  JSONWriter writer;
  write(writer, record);
  return writer.take();
}

template <class Record>
Record JSONDecoder::decode(std::string_view body) const {
  const auto value = StrictJSON::parse(body);
  if (!value) throw DecodingError(Kind::dataCorrupted, "", "is not valid JSON");
  return get<Record>(JSONReader(*value));
}

#define TL_INSTANTIATE(Record)                                           \
  template std::string JSONEncoder::encode<Record>(const Record&) const; \
  template Record JSONDecoder::decode<Record>(std::string_view) const

TL_INSTANTIATE(HelperCapabilities);
TL_INSTANTIATE(HelperFreshness);
TL_INSTANTIATE(GenerationRequest);
TL_INSTANTIATE(GenerationCancelRequest);
TL_INSTANTIATE(GeneratedFields);
TL_INSTANTIATE(GenerationTokens);
TL_INSTANTIATE(GenerationResult);
TL_INSTANTIATE(GenerationErrorPayload);
TL_INSTANTIATE(EngineStatusRequest);
TL_INSTANTIATE(EngineStatus);
TL_INSTANTIATE(KillRequest);
TL_INSTANTIATE(KillResult);
TL_INSTANTIATE(ProcessSample);
TL_INSTANTIATE(PortSample);
TL_INSTANTIATE(std::vector<ProcessSample>);
TL_INSTANTIATE(std::vector<PortSample>);

#undef TL_INSTANTIATE

}  // namespace tessaloom
