#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <nlohmann/json.hpp>

#include "HelperProtocol/CodingError.h"

namespace tessaloom {

/// One value of a message body and the way to it. Readers of members refer to the reader they came
/// from, which must outlive them; the key path is put together only when something is wrong.
class JSONReader {
 public:
  explicit JSONReader(const nlohmann::json& body) : value_(&body) {}

  /// The member of that name; keyNotFound when it is missing or null.
  JSONReader required(std::string_view key) const;
  /// What `read` makes of the member of that name; nothing when it is missing or null.
  template <class Read>
  auto optional(std::string_view key, Read read) const
      -> std::optional<decltype(read(std::declval<JSONReader>()))> {
    if (isAbsent(key)) return std::nullopt;
    return read(required(key));
  }
  /// Calls `read` with each element of the array in order.
  template <class Read>
  void forEach(Read read) const {
    check(value_->is_array(), "is not an array");
    for (std::size_t i = 0; i < value_->size(); ++i) read(JSONReader((*value_)[i], *this, i));
  }
  std::size_t size() const { return value_->size(); }

  const std::string& string() const;
  bool boolean() const;
  template <class Integer>
  Integer integer() const;

  [[noreturn]] void fail(DecodingError::Kind kind, const std::string& problem) const {
    throw DecodingError(kind, path(), problem);
  }

  /// The way from the body to this value, as in `fields.tags[3]`; empty for the body itself.
  std::string path() const;

 private:
  JSONReader(const nlohmann::json& value, const JSONReader& parent, std::string_view key)
      : value_(&value), parent_(&parent), key_(key) {}
  JSONReader(const nlohmann::json& value, const JSONReader& parent, std::size_t index)
      : value_(&value), parent_(&parent), index_(index) {}

  bool isAbsent(std::string_view key) const;
  void check(bool hasType, const char* problem) const {
    if (!hasType) fail(DecodingError::Kind::typeMismatch, problem);
  }
  [[noreturn]] void failAsInteger() const;

  const nlohmann::json* value_;
  const JSONReader* parent_ = nullptr;
  std::string_view key_;
  std::size_t index_ = 0;
};

template <class Integer>
Integer JSONReader::integer() const {
  // Numbers with an integral value were stored as integers when they fit 64 bits.
  if (value_->is_number_unsigned()) {
    const auto number = value_->get<std::uint64_t>();
    if (std::in_range<Integer>(number)) return static_cast<Integer>(number);
  } else if (value_->is_number_integer()) {
    const auto number = value_->get<std::int64_t>();
    if (std::in_range<Integer>(number)) return static_cast<Integer>(number);
  }
  failAsInteger();
}

}  // namespace tessaloom
