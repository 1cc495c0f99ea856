#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "HelperProtocol/CodingError.h"

namespace tessaloom {

// JSON (RFC 8259) is read without building a tree: a JSONReader reports each value that it reads to
// a JSONTarget, which keeps only the values that it was made for. So memory is bounded by what is
// kept and by the longest token, which with the white space before it takes up to about four times
// its size while it is read; a text that is not JSON takes up to eight times its size.

enum class JSONContainer : std::uint8_t { object, array };

/// A value that is not an object or array. A number without a fraction and an exponent is an
/// integer if 64 bits hold it. Any other is read as the nearest double, which makes an integer too
/// if it is integral and between -2^63 and 2^63, both excluded: 5.0, but also
/// 4.9999999999999999999999, and 9007199254740993.0 is the even number below it.
using JSONScalar = std::variant<std::nullptr_t, bool, std::int64_t, double, std::string>;

/// Receives one value. When a key occurs again the same target receives the later value, which
/// replaces the earlier one.
class JSONTarget {
 public:
  virtual ~JSONTarget() = default;

  /// `source` is how a number that is not an integer is written.
  virtual void scalar(JSONScalar value, std::string_view source) = 0;
  virtual void begin(JSONContainer container) = 0;
  /// The target of the value of the next member; null to skip it.
  virtual JSONTarget* member(std::string_view key) = 0;
  /// The target of the array's next element; null to skip it.
  virtual JSONTarget* element() = 0;
  virtual void end() = 0;
};

/// Reads strictly: one value and nothing after it (a NUL is a byte like any other, and wrong),
/// valid UTF-8, no byte order mark, no lone surrogate escapes, no number that a double cannot hold,
/// and no nesting deeper than `maximumDepth`. Linear in the length of the text; no recursion.
class JSONReader {
 public:
  static constexpr std::size_t maximumDepth = 512;

  /// What is wrong with the text and where, for a person, as in "is not valid JSON at byte 3: ...";
  /// nullopt if nothing is. A target may then have received a part of the value.
  static std::optional<std::string> read(std::string_view text, JSONTarget& target);
};

/// Keeps a scalar; of an object or array, only which of the two it is. It records its place in the
/// body, and throws a DecodingError that names that place for a value that it does not expect.
class JSONSlot : public JSONTarget {
 public:
  JSONSlot() = default;
  JSONSlot(const JSONSlot&) = delete;
  JSONSlot& operator=(const JSONSlot&) = delete;

  void scalar(JSONScalar value, std::string_view source) override;
  void begin(JSONContainer container) override;
  JSONTarget* member(std::string_view /*key*/) override { return nullptr; }
  JSONTarget* element() override { return nullptr; }
  void end() override {}

  /// Removes the value; each new value does so first.
  virtual void clear() { value_ = std::monostate(); }

  /// Whether there is no value, or null.
  bool isAbsent() const { return value_.index() <= 1; }
  bool is(JSONContainer container) const { return value_ == Value(container); }
  bool isContainer() const { return std::holds_alternative<JSONContainer>(value_); }
  /// The value if it is of that type, otherwise null.
  template <class Type>
  const Type* get() const {
    return std::get_if<Type>(&value_);
  }

  // The value as what it has to be; each throws typeMismatch or numberDoesNotFit.
  std::string& string();
  bool boolean() const;
  template <class Integer>
  Integer integer() const {
    const auto* number = get<std::int64_t>();
    if (number == nullptr || !std::in_range<Integer>(*number)) failAsInteger();
    return static_cast<Integer>(*number);
  }
  void require(JSONContainer container) const;

  [[noreturn]] void fail(DecodingError::Kind kind, const std::string& problem) const {
    throw DecodingError(kind, path(), problem);
  }

  /// Says where the value is: the member `key` of the object `parent`, or element `index` of the
  /// array.
  void place(const JSONSlot& parent, std::string_view key) { parent_ = &parent, key_ = key; }
  void place(const JSONSlot& parent, std::size_t index) { parent_ = &parent, index_ = index; }
  /// The way from the body to this value, as in `fields.tags[3]`; empty for the body itself.
  std::string path() const;

 protected:
  void keep(JSONScalar value);

 private:
  using Value = std::variant<std::monostate, std::nullptr_t, bool, std::int64_t, double,
                             std::string, JSONContainer>;

  [[noreturn]] void failAsInteger() const;

  Value value_;
  const JSONSlot* parent_ = nullptr;
  std::string_view key_;
  std::size_t index_ = 0;
};

/// Keeps those members of an object that it has slots for. The slots outlive it.
class JSONObject : public JSONSlot {
 public:
  using Member = std::pair<std::string_view, JSONSlot*>;

  JSONObject(std::initializer_list<Member> members) : members_(members) {}

  JSONTarget* member(std::string_view key) override;
  void clear() override;

 private:
  std::vector<Member> members_;
};

/// Keeps a value as compact JSON text: all members in the order of the source, also several with
/// the same key; numbers that are not integers as they are written there.
class JSONText : public JSONSlot {
 public:
  void scalar(JSONScalar value, std::string_view source) override;
  void begin(JSONContainer container) override;
  JSONTarget* member(std::string_view key) override;
  JSONTarget* element() override;
  void end() override;
  void clear() override;

  const std::string& text() const { return text_; }

 private:
  std::string text_;
  std::vector<JSONContainer> open_;
};

}  // namespace tessaloom
