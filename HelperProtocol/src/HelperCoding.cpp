#include "HelperProtocol/HelperCoding.h"

#include <array>
#include <concepts>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "HelperProtocol/CodingError.h"
#include "HelperProtocol/EngineStatus.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/GenerationErrorPayload.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationResult.h"
#include "HelperProtocol/HelperCapabilities.h"
#include "HelperProtocol/HelperDTOError.h"
#include "HelperProtocol/HelperFreshness.h"
#include "HelperProtocol/ProcessMessages.h"
#include "HelperProtocol/StrictJSON.h"
#include "ISO8601.h"
#include "JSONReader.h"
#include "JSONWriter.h"
#include "WireValues.h"

namespace tessaloom {
namespace {

using Kind = DecodingError::Kind;

// The members of each record in declared order: the key, and what gives the value.

template <class Member>
struct Field {
  constexpr Field(std::string_view name, Member access) : key(name), member(access) {}

  std::string_view key;
  Member member;
};

template <class Record>
struct Fields;

template <>
struct Fields<HelperCapabilities> {
  static constexpr std::tuple value{Field("names", &HelperCapabilities::names),
                                    Field("helperVersion", &HelperCapabilities::helperVersion)};
};

template <>
struct Fields<HelperFreshness> {
  static constexpr std::tuple value{Field("isOutdated", &HelperFreshness::isOutdated),
                                    Field("willExit", &HelperFreshness::willExit)};
};

template <>
struct Fields<GenerationRequest> {
  static constexpr std::tuple value{Field("requestID", &GenerationRequest::requestID),
                                    Field("engine", &GenerationRequest::engine),
                                    Field("shape", &GenerationRequest::shape),
                                    Field("instructions", &GenerationRequest::instructions),
                                    Field("prompt", &GenerationRequest::prompt),
                                    Field("timeout", &GenerationRequest::timeout)};
};

template <>
struct Fields<GenerationCancelRequest> {
  static constexpr std::tuple value{Field("requestID", &GenerationCancelRequest::requestID)};
};

template <>
struct Fields<GeneratedFields> {
  static constexpr std::tuple value{Field("itemDescription", &GeneratedFields::itemDescription),
                                    Field("tags", &GeneratedFields::tags),
                                    Field("globs", &GeneratedFields::globs),
                                    Field("alwaysApply", &GeneratedFields::alwaysApply)};
};

template <>
struct Fields<GenerationTokens> {
  static constexpr std::tuple value{Field("input", &GenerationTokens::input),
                                    Field("output", &GenerationTokens::output),
                                    Field("cachedInput", &GenerationTokens::cachedInput)};
};

template <>
struct Fields<GenerationResult> {
  static constexpr std::tuple value{
      Field("requestID", &GenerationResult::requestID),
      Field("engine", &GenerationResult::engine),
      Field("text", &GenerationResult::text),
      Field("fields", &GenerationResult::fields),
      Field("tokens", &GenerationResult::tokens),
      Field("durationMilliseconds", &GenerationResult::durationMilliseconds)};
};

template <>
struct Fields<GenerationErrorPayload> {
  static constexpr std::tuple value{Field("kind", &GenerationErrorPayload::kind),
                                    Field("engine", &GenerationErrorPayload::engine),
                                    Field("exitCode", &GenerationErrorPayload::exitCode),
                                    Field("detail", &GenerationErrorPayload::detail)};
};

template <>
struct Fields<EngineStatusRequest> {
  static constexpr std::tuple value{Field("engine", &EngineStatusRequest::engine)};
};

template <>
struct Fields<EngineStatus> {
  static constexpr std::tuple value{Field("engine", &EngineStatus::engine),
                                    Field("binaryFound", &EngineStatus::binaryFound),
                                    Field("authenticated", &EngineStatus::authenticated),
                                    Field("version", &EngineStatus::version)};
};

template <>
struct Fields<KillRequest> {
  static constexpr std::tuple value{Field("pid", &KillRequest::pid),
                                    Field("signal", &KillRequest::signal)};
};

template <>
struct Fields<KillResult> {
  static constexpr std::tuple value{Field("succeeded", &KillResult::succeeded),
                                    Field("message", &KillResult::message)};
};

template <>
struct Fields<ProcessSample> {
  static constexpr std::tuple value{Field("pid", &ProcessSample::pid),
                                    Field("parentPID", &ProcessSample::parentPID),
                                    Field("tty", &ProcessSample::tty),
                                    Field("startedAt", &ProcessSample::startedAt),
                                    Field("elapsedSeconds", &ProcessSample::elapsedSeconds),
                                    Field("residentBytes", &ProcessSample::residentBytes),
                                    Field("command", &ProcessSample::command)};
};

template <>
struct Fields<PortSample> {
  static constexpr std::tuple value{
      Field("port", &PortSample::port), Field("transport", &PortSample::transport),
      Field("pid", &PortSample::pid), Field("processName", &PortSample::processName),
      Field("address", &PortSample::address)};
};

template <class Value>
concept KeyedRecord = requires { Fields<Value>::value; };

template <class Value>
concept NamedCase = requires(Value value) {
  { wireValue(value) } -> std::same_as<std::string_view>;
};

template <class Value>
inline constexpr bool isOptional = false;
template <class Value>
inline constexpr bool isOptional<std::optional<Value>> = true;

// Writing: one `write` for each type that a body may hold.

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
void write(JSONWriter& writer, NamedCase auto value) {
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

void write(JSONWriter& writer, const KeyedRecord auto& record);

template <class Elements>
void writeArray(JSONWriter& writer, const Elements& elements) {
  writer.beginArray();
  for (const auto& element : elements) {
    writer.element();
    write(writer, element);
  }
  writer.endArray();
}

void write(JSONWriter& writer, const std::set<std::string>& values) {
  writeArray(writer, values);
}

template <class Element>
void write(JSONWriter& writer, const std::vector<Element>& values) {
  writeArray(writer, values);
}

template <class Value>
void writeMember(JSONWriter& writer, std::string_view key, const Value& value) {
  if constexpr (isOptional<Value>) {
    if (value) writeMember(writer, key, *value);
  } else {
    writer.key(key);
    write(writer, value);
  }
}

void write(JSONWriter& writer, const KeyedRecord auto& record) {
  writer.beginObject();
  std::apply(
      [&](const auto&... fields) {
        (writeMember(writer, fields.key, std::invoke(fields.member, record)), ...);
      },
      Fields<std::remove_cvref_t<decltype(record)>>::value);
  writer.endObject();
}

// Reading: one specialisation for each type that a body may hold.

template <class Value>
struct Reading;

/// What `make` gives for the value of `reader`; a limit that it breaks is reported with its place.
template <class Make>
auto checkedAt(const JSONReader& reader, Make make) {
  try {
    return make();
  } catch (const GenerationDTOError& error) {
    throw error.at(reader.path());
  } catch (const HelperDTOError& error) {
    throw error.at(reader.path());
  }
}

template <class Value>
Value readMember(const JSONReader& reader, std::string_view key) {
  if constexpr (isOptional<Value>) {
    return reader.optional(key, Reading<typename Value::value_type>::from);
  } else {
    return Reading<Value>::from(reader.required(key));
  }
}

template <class Enum, std::size_t count>
Enum readCase(const JSONReader& reader, const std::array<Enum, count>& cases) {
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
    reader.forEach(
        [&](const JSONReader& element) { values.push_back(Reading<Element>::from(element)); });
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
    return readCase(reader, allGenerationEngineIDs);
  }
};

template <>
struct Reading<GenerationShape> {
  static GenerationShape from(const JSONReader& reader) {
    return readCase(reader, allGenerationShapes);
  }
};

template <>
struct Reading<GenerationFailureKind> {
  static GenerationFailureKind from(const JSONReader& reader) {
    return readCase(reader, allGenerationFailureKinds);
  }
};

template <>
struct Reading<GenerationTimeout> {
  static GenerationTimeout from(const JSONReader& reader) {
    return checkedAt(reader, [&] { return GenerationTimeout(reader.integer<std::int64_t>()); });
  }
};

template <>
struct Reading<BoundedText> {
  static BoundedText from(const JSONReader& reader) {
    return checkedAt(reader, [&] { return BoundedText(reader.string()); });
  }
};

template <>
struct Reading<ProcessID> {
  static ProcessID from(const JSONReader& reader) {
    return checkedAt(reader, [&] { return ProcessID(reader.integer<std::int32_t>()); });
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

template <class Record, class Member>
auto readField(const JSONReader& reader, const Field<Member>& field) {
  using Value = std::remove_cvref_t<std::invoke_result_t<Member, const Record&>>;
  return readMember<Value>(reader, field.key);
}

template <KeyedRecord Record>
struct Reading<Record> {
  static Record from(const JSONReader& reader) {
    // Braces, because they evaluate from left to right: the first bad member is the one reported.
    return std::apply(
        [&](const auto&... fields) { return Record{readField<Record>(reader, fields)...}; },
        Fields<Record>::value);
  }
};

template <>
struct Reading<HelperFreshness> {
  static HelperFreshness from(const JSONReader& reader) {
    const bool isOutdated = readMember<bool>(reader, "isOutdated");
    return HelperFreshness::asRead(isOutdated, readMember<bool>(reader, "willExit"));
  }
};

template <>
struct Reading<GenerationRequest> {
  static GenerationRequest from(const JSONReader& reader) {
    const auto instructions = readMember<BoundedText>(reader, "instructions");
    const auto prompt = readMember<BoundedText>(reader, "prompt");
    // The prompt's own limit is the one that every bounded text has.
    const auto checked = checkedAt(reader.required("instructions"), [&] {
      return BoundedText(instructions.value(), GenerationRequest::instructionsLimit);
    });
    const auto requestID = readMember<UUID>(reader, "requestID");
    const auto engine = readMember<GenerationEngineID>(reader, "engine");
    const auto shape = readMember<GenerationShape>(reader, "shape");
    const auto timeout = readMember<GenerationTimeout>(reader, "timeout");
    return {requestID, engine, shape, checked.value(), prompt.value(), timeout};
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
  return Reading<Record>::from(JSONReader(*value));
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
