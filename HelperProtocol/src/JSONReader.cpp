#include "HelperProtocol/JSONReader.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <ranges>

#include <nlohmann/json.hpp>

#include "JSONWriter.h"

namespace tessaloom {
namespace {

using nlohmann::json;

constexpr double beyondIntegers = 9223372036854775808.0;  // 2^63

std::string invalidAt(std::size_t byte, std::string_view problem) {
  return "is not valid JSON at byte " + std::to_string(byte) + ": " + std::string(problem);
}

/// Reads a text with each line feed, return and tab outside strings as a space, which means the
/// same. For its message about a text that is not JSON, which is not used here, the library writes
/// each control character since the last string or number as eight, in several copies.
class SpacingIterator {
 public:
  using iterator_category = std::input_iterator_tag;
  using value_type = char;
  using difference_type = std::ptrdiff_t;
  using pointer = const char*;
  using reference = char;

  explicit SpacingIterator(const char* next) : next_(next) {}

  char operator*() const {
    const bool isSpace = *next_ == '\n' || *next_ == '\r' || *next_ == '\t';
    return isSpace && !isInString_ ? ' ' : *next_;
  }
  SpacingIterator& operator++() {
    if (*next_ == '"' && !isEscaped_) isInString_ = !isInString_;
    isEscaped_ = *next_ == '\\' && !isEscaped_;
    ++next_;
    return *this;
  }
  friend bool operator==(const SpacingIterator& a, const SpacingIterator& b) {
    return a.next_ == b.next_;
  }

 private:
  const char* next_;
  bool isInString_ = false;
  bool isEscaped_ = false;
};

/// Passes the library's events to the targets. The library keeps its own stack on the heap.
class Router final : public nlohmann::json_sax<json> {
 public:
  explicit Router(JSONTarget& root) : root_(&root) {}

  std::string takeProblem() { return std::move(problem_); }
  /// The byte, counted from 1, at which the text proved not to be JSON; 0 if it did not.
  std::size_t failedAt() const { return failedAt_; }

  bool null() override { return put(nullptr); }
  bool boolean(bool value) override { return put(value); }
  bool number_integer(number_integer_t value) override { return put(value); }
  bool number_unsigned(number_unsigned_t value) override {
    if (std::in_range<std::int64_t>(value)) return put(static_cast<std::int64_t>(value));
    return put(static_cast<double>(value), std::to_string(value));
  }
  bool number_float(number_float_t value, const string_t& source) override {
    // -2^63 is left out, since -2^63 - 1, which does not fit, is read as the same double.
    const bool isIntegral = std::trunc(value) == value && std::abs(value) < beyondIntegers;
    return isIntegral ? put(static_cast<std::int64_t>(value)) : put(value, source);
  }
  bool string(string_t& value) override { return put(std::move(value)); }
  bool binary(binary_t& /*value*/) override { return false; }

  bool start_object(std::size_t /*size*/) override { return open(JSONContainer::object); }
  bool key(string_t& name) override {
    auto& object = open_.back();
    if (object.target != nullptr) object.next = object.target->member(name);
    return true;
  }
  bool end_object() override { return close(); }
  bool start_array(std::size_t /*size*/) override { return open(JSONContainer::array); }
  bool end_array() override { return close(); }

  // The library's message begins with numbers of its own and may end with a quotation of the text.
  bool parse_error(std::size_t position, const std::string& /*token*/,
                   const json::exception& error) override {
    constexpr std::string_view separator = " - ";
    std::string_view message = error.what();
    const auto start = message.find(separator);
    message = start == std::string_view::npos ? "a number is out of range"
                                              : message.substr(start + separator.size());
    failedAt_ = position;
    problem_ = invalidAt(position, message.substr(0, message.find("; last read: ")));
    return false;
  }

 private:
  struct Container {
    JSONTarget* target;  ///< Null while what it has is skipped.
    bool isArray;
    JSONTarget* next = nullptr;  ///< Where the value of the last key goes.
  };

  JSONTarget* next() {
    if (open_.empty()) return root_;
    const Container& container = open_.back();
    if (container.target == nullptr) return nullptr;
    return container.isArray ? container.target->element() : container.next;
  }

  bool put(JSONScalar value, std::string_view source = {}) {
    if (JSONTarget* target = next()) target->scalar(std::move(value), source);
    return true;
  }

  bool open(JSONContainer kind) {
    if (open_.size() == JSONReader::maximumDepth) {
      problem_ = "is nested more than " + std::to_string(JSONReader::maximumDepth) + " deep";
      return false;
    }
    JSONTarget* target = next();
    if (target != nullptr) target->begin(kind);
    open_.push_back({.target = target, .isArray = kind == JSONContainer::array});
    return true;
  }

  bool close() {
    if (open_.back().target != nullptr) open_.back().target->end();
    open_.pop_back();
    return true;
  }

  JSONTarget* root_;
  std::vector<Container> open_;  // outermost first
  std::size_t failedAt_ = 0;
  std::string problem_;
};

}  // namespace

std::optional<std::string> JSONReader::read(std::string_view text, JSONTarget& target) {
  // The library takes a NUL for the end of its input and skips a byte order mark; JSON has neither.
  if (text.starts_with("\xEF\xBB\xBF")) return invalidAt(1, "a byte order mark");
  const auto end = std::min(text.find('\0'), text.size());
  Router router(target);
  const bool wasRead =
      json::sax_parse(SpacingIterator(text.data()), SpacingIterator(text.data() + end), &router);
  if (end < text.size() && (wasRead || router.failedAt() > end)) return invalidAt(end + 1, "a NUL");
  if (wasRead) return std::nullopt;
  return router.takeProblem();
}

void JSONSlot::begin(JSONContainer container) {
  clear();
  value_ = container;
}

void JSONSlot::scalar(JSONScalar value, std::string_view /*source*/) {
  clear();
  keep(std::move(value));
}

void JSONSlot::keep(JSONScalar value) {
  std::visit([this](auto&& kept) { value_ = std::forward<decltype(kept)>(kept); },
             std::move(value));
}

std::string& JSONSlot::string() {
  auto* text = std::get_if<std::string>(&value_);
  if (text == nullptr) fail(DecodingError::Kind::typeMismatch, "is not a string");
  return *text;
}

bool JSONSlot::boolean() const {
  const auto* value = get<bool>();
  if (value == nullptr) fail(DecodingError::Kind::typeMismatch, "is not true or false");
  return *value;
}

void JSONSlot::require(JSONContainer container) const {
  if (is(container)) return;
  const bool isObject = container == JSONContainer::object;
  fail(DecodingError::Kind::typeMismatch, isObject ? "is not an object" : "is not an array");
}

void JSONSlot::failAsInteger() const {
  // A double that is integral is one of at least 2^63, or at most -2^63.
  const auto* number = get<double>();
  if (get<std::int64_t>() != nullptr || (number != nullptr && std::trunc(*number) == *number)) {
    fail(DecodingError::Kind::numberDoesNotFit, "is out of range");
  }
  fail(DecodingError::Kind::typeMismatch, "is not an integer");
}

std::string JSONSlot::path() const {
  std::vector<const JSONSlot*> way;
  for (const auto* slot = this; slot->parent_ != nullptr; slot = slot->parent_) way.push_back(slot);
  std::string path;
  for (const auto* slot : std::views::reverse(way)) {
    if (slot->key_.empty()) {
      path += '[' + std::to_string(slot->index_) + ']';
    } else {
      if (!path.empty()) path += '.';
      path += slot->key_;
    }
  }
  return path;
}

JSONTarget* JSONObject::member(std::string_view key) {
  for (const auto& [name, slot] : members_) {
    if (name == key) return slot;
  }
  return nullptr;
}

void JSONObject::clear() {
  JSONSlot::clear();
  for (const auto& [name, slot] : members_) slot->clear();
}

void JSONText::scalar(JSONScalar value, std::string_view source) {
  if (open_.empty()) clear();
  if (const auto* text = std::get_if<std::string>(&value)) {
    appendQuoted(text_, *text);
  } else if (const auto* number = std::get_if<std::int64_t>(&value)) {
    appendInteger(text_, *number);
  } else if (const auto* truth = std::get_if<bool>(&value)) {
    text_ += *truth ? "true" : "false";
  } else if (std::holds_alternative<std::nullptr_t>(value)) {
    text_ += "null";
  } else {
    text_ += source;
  }
  if (open_.empty()) keep(std::move(value));
}

void JSONText::begin(JSONContainer container) {
  if (open_.empty()) JSONSlot::begin(container);
  open_.push_back(container);
  text_ += container == JSONContainer::object ? '{' : '[';
}

JSONTarget* JSONText::member(std::string_view key) {
  if (text_.back() != '{') text_ += ',';
  appendQuoted(text_, key);
  text_ += ':';
  return this;
}

JSONTarget* JSONText::element() {
  if (text_.back() != '[') text_ += ',';
  return this;
}

void JSONText::end() {
  text_ += open_.back() == JSONContainer::object ? '}' : ']';
  open_.pop_back();
}

void JSONText::clear() {
  JSONSlot::clear();
  text_.clear();
  open_.clear();
}

}  // namespace tessaloom
