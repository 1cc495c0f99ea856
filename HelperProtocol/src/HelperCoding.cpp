#include "HelperProtocol/HelperCoding.h"

#include <array>
#include <concepts>
#include <cstddef>
#include <exception>
#include <functional>
#include <limits>
#include <new>
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
#include "HelperProtocol/JSONReader.h"
#include "HelperProtocol/ProcessMessages.h"
#include "HelperProtocol/WireValues.h"
#include "ISO8601.h"
#include "JSONWriter.h"

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

// Reading: a slot for each type that a body may hold, and what its value has to be.

template <class Value>
struct SlotOf {
  using Slot = JSONSlot;
};
template <class Value>
using Slot = typename SlotOf<Value>::Slot;

template <class Value>
struct Reading;

template <class Record, class Member>
using MemberValue = std::remove_cvref_t<std::invoke_result_t<Member, const Record&>>;

/// A slot for each member of a record.
template <class Record>
class RecordSlot : public JSONSlot {
 public:
  RecordSlot() {
    forEach([this](std::string_view key, JSONSlot& slot) { slot.place(*this, key); });
  }

  JSONTarget* member(std::string_view name) override {
    JSONTarget* found = nullptr;
    forEach([&](std::string_view key, JSONSlot& slot) {
      if (key == name) found = &slot;
    });
    return found;
  }

  void clear() override {
    JSONSlot::clear();
    forEach([](std::string_view, JSONSlot& slot) { slot.clear(); });
  }

  /// The slots of an object; throws for any other value.
  auto& slots() {
    require(JSONContainer::object);
    return slots_;
  }

 private:
  template <class Use>
  void forEach(Use use) {
    std::apply(
        [&](const auto&... fields) {
          std::apply([&](auto&... slots) { (use(fields.key, slots), ...); }, slots_);
        },
        Fields<Record>::value);
  }

  template <class... Members>
  static std::tuple<Slot<MemberValue<Record, Members>>...> makeSlots(
      const std::tuple<Field<Members>...>& fields);

  decltype(makeSlots(Fields<Record>::value)) slots_;
};

/// The elements of an array, each read as soon as it has ended. Past `kept` they are only counted.
template <class Element, std::size_t kept = std::numeric_limits<std::size_t>::max()>
class ArraySlot : public JSONSlot {
 public:
  JSONTarget* element() override {
    finish();
    if (error_) return nullptr;
    current_.place(*this, count_++);
    isPending_ = true;
    return &current_;
  }

  void end() override { finish(); }

  void clear() override {
    JSONSlot::clear();
    elements_.clear();
    count_ = 0;
    error_ = nullptr;
    isPending_ = false;
  }

  std::size_t count() const { return count_; }

  /// Throws what was wrong with the first bad element.
  std::vector<Element>& elements() {
    require(JSONContainer::array);
    if (error_) std::rethrow_exception(error_);
    return elements_;
  }

 private:
  void finish() {
    if (!std::exchange(isPending_, false)) return;
    try {
      auto value = Reading<Element>::from(current_);
      if (elements_.size() < kept) elements_.push_back(std::move(value));
    } catch (const std::bad_alloc&) {
      throw;
    } catch (const std::exception&) {
      error_ = std::current_exception();
    }
  }

  std::vector<Element> elements_;
  Slot<Element> current_;
  std::size_t count_ = 0;
  bool isPending_ = false;
  std::exception_ptr error_;
};

template <class Value>
struct SlotOf<std::optional<Value>> : SlotOf<Value> {};
template <KeyedRecord Record>
struct SlotOf<Record> {
  using Slot = RecordSlot<Record>;
};
template <class Element>
struct SlotOf<std::vector<Element>> {
  using Slot = ArraySlot<Element>;
};
/// The lists of GeneratedFields, whose length is checked only when both have been read; those that
/// are within it are kept whole.
template <>
struct SlotOf<std::vector<std::string>> {
  static constexpr int kept = 100;
  static_assert(kept >= GeneratedFields::maximumTags && kept >= GeneratedFields::maximumGlobs);
  using Slot = ArraySlot<std::string, kept>;
};
template <>
struct SlotOf<std::set<std::string>> {
  using Slot = ArraySlot<std::string>;
};

/// What `make` returns for the value of `slot`; a limit that it breaks is reported with its place.
template <class Make>
auto checkedAt(const JSONSlot& slot, Make make) {
  try {
    return make();
  } catch (const GenerationDTOError& error) {
    throw error.at(slot.path());
  } catch (const HelperDTOError& error) {
    throw error.at(slot.path());
  }
}

template <class Value>
Value readMember(Slot<Value>& slot) {
  if constexpr (isOptional<Value>) {
    if (slot.isAbsent()) return std::nullopt;
    return Reading<typename Value::value_type>::from(slot);
  } else {
    if (slot.isAbsent()) slot.fail(Kind::keyNotFound, "is missing");
    return Reading<Value>::from(slot);
  }
}

template <class Enum, std::size_t count>
Enum readCase(JSONSlot& slot, const std::array<Enum, count>& cases) {
  if (const auto found = caseNamed(slot.string(), cases)) return *found;
  std::string names;
  for (const Enum one : cases) names.append(names.empty() ? "" : ", ").append(wireValue(one));
  slot.fail(Kind::dataCorrupted, "is not one of " + names);
}

template <>
struct Reading<bool> {
  static bool from(JSONSlot& slot) { return slot.boolean(); }
};

template <std::integral Integer>
struct Reading<Integer> {
  static Integer from(JSONSlot& slot) { return slot.integer<Integer>(); }
};

template <>
struct Reading<std::string> {
  static std::string from(JSONSlot& slot) { return std::move(slot.string()); }
};

template <>
struct Reading<std::set<std::string>> {
  static std::set<std::string> from(Slot<std::set<std::string>>& slot) {
    return {slot.elements().begin(), slot.elements().end()};
  }
};

template <class Element>
struct Reading<std::vector<Element>> {
  static std::vector<Element> from(Slot<std::vector<Element>>& slot) {
    return std::move(slot.elements());
  }
};

template <>
struct Reading<UUID> {
  static UUID from(JSONSlot& slot) {
    if (const auto uuid = UUID::parse(slot.string())) return *uuid;
    slot.fail(Kind::dataCorrupted, "is not a UUID");
  }
};

template <>
struct Reading<Instant> {
  static Instant from(JSONSlot& slot) {
    if (const auto instant = ISO8601::parse(slot.string())) return *instant;
    slot.fail(Kind::dataCorrupted, "is not a date of the form 2026-11-21T10:00:00Z");
  }
};

template <>
struct Reading<GenerationEngineID> {
  static GenerationEngineID from(JSONSlot& slot) { return readCase(slot, allGenerationEngineIDs); }
};

template <>
struct Reading<GenerationShape> {
  static GenerationShape from(JSONSlot& slot) { return readCase(slot, allGenerationShapes); }
};

template <>
struct Reading<GenerationFailureKind> {
  static GenerationFailureKind from(JSONSlot& slot) {
    return readCase(slot, allGenerationFailureKinds);
  }
};

template <>
struct Reading<GenerationTimeout> {
  static GenerationTimeout from(JSONSlot& slot) {
    return checkedAt(slot, [&] { return GenerationTimeout(slot.integer<std::int64_t>()); });
  }
};

template <>
struct Reading<BoundedText> {
  static BoundedText from(JSONSlot& slot) {
    return checkedAt(slot, [&] { return BoundedText(std::move(slot.string())); });
  }
};

template <>
struct Reading<ProcessID> {
  static ProcessID from(JSONSlot& slot) {
    return checkedAt(slot, [&] { return ProcessID(slot.integer<std::int32_t>()); });
  }
};

template <>
struct Reading<Signal> {
  static Signal from(JSONSlot& slot) {
    const auto number = slot.integer<std::int32_t>();
    for (const Signal signal : allSignals) {
      if (std::to_underlying(signal) == number) return signal;
    }
    slot.fail(Kind::dataCorrupted, "is not one of 2, 9, 15");
  }
};

template <KeyedRecord Record>
struct Reading<Record> {
  static Record from(RecordSlot<Record>& slot) {
    return std::apply([&](const auto&... fields) { return read(slot, fields...); },
                      Fields<Record>::value);
  }

 private:
  template <class... Members>
  static Record read(RecordSlot<Record>& slot, const Field<Members>&... /*fields*/) {
    // Braces, because they evaluate from left to right: the first bad member is the one reported.
    return std::apply(
        [](auto&... slots) { return Record{readMember<MemberValue<Record, Members>>(slots)...}; },
        slot.slots());
  }
};

template <>
struct Reading<HelperFreshness> {
  static HelperFreshness from(RecordSlot<HelperFreshness>& slot) {
    auto& [isOutdated, willExit] = slot.slots();
    const bool outdated = readMember<bool>(isOutdated);
    return HelperFreshness::asRead(outdated, readMember<bool>(willExit));
  }
};

template <>
struct Reading<GeneratedFields> {
  static GeneratedFields from(RecordSlot<GeneratedFields>& slot) {
    auto& [itemDescription, tags, globs, alwaysApply] = slot.slots();
    auto description = readMember<std::string>(itemDescription);
    auto tagList = readMember<std::vector<std::string>>(tags);
    auto globList = readMember<std::vector<std::string>>(globs);
    const bool applies = readMember<bool>(alwaysApply);
    const std::size_t tagCount = tags.count();
    const std::size_t globCount = globs.count();
    return checkedAt(slot, [&] {
      GeneratedFields::checkCounts(tagCount, globCount);
      return GeneratedFields(description, std::move(tagList), std::move(globList), applies);
    });
  }
};

template <>
struct Reading<GenerationRequest> {
  static GenerationRequest from(RecordSlot<GenerationRequest>& slot) {
    auto& [requestID, engine, shape, instructions, prompt, timeout] = slot.slots();
    auto instructionsText = readMember<BoundedText>(instructions);
    auto promptText = readMember<BoundedText>(prompt);
    // The prompt's own limit is the one that every bounded text has.
    checkedAt(instructions,
              [&] { instructionsText.requireLength(GenerationRequest::instructionsLimit); });
    const auto id = readMember<UUID>(requestID);
    const auto engineID = readMember<GenerationEngineID>(engine);
    const auto itsShape = readMember<GenerationShape>(shape);
    return {id,
            engineID,
            itsShape,
            std::move(instructionsText),
            std::move(promptText),
            readMember<GenerationTimeout>(timeout)};
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
  Slot<Record> slot;
  if (const auto problem = JSONReader::read(body, slot)) {
    throw DecodingError(Kind::dataCorrupted, "", *problem);
  }
  return Reading<Record>::from(slot);
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
