#include "JSONReader.h"

#include <cmath>
#include <ranges>
#include <vector>

namespace tessaloom {
namespace {

const nlohmann::json* memberNamed(const nlohmann::json& object, std::string_view key) {
  const auto member = object.find(key);
  return member == object.end() || member->is_null() ? nullptr : &*member;
}

}  // namespace

bool JSONReader::isAbsent(std::string_view key) const {
  check(value_->is_object(), "is not an object");
  return memberNamed(*value_, key) == nullptr;
}

JSONReader JSONReader::required(std::string_view key) const {
  static const nlohmann::json nothing;
  check(value_->is_object(), "is not an object");
  if (const auto* member = memberNamed(*value_, key)) return {*member, *this, key};
  JSONReader(nothing, *this, key).fail(DecodingError::Kind::keyNotFound, "is missing");
}

const std::string& JSONReader::string() const {
  check(value_->is_string(), "is not a string");
  return value_->get_ref<const std::string&>();
}

bool JSONReader::boolean() const {
  check(value_->is_boolean(), "is not true or false");
  return value_->get<bool>();
}

void JSONReader::failAsInteger() const {
  // What stayed a double and is integral is one that no 64 bits hold.
  constexpr double fitsAll = 9223372036854775808.0;  // 2^63
  bool isIntegral = value_->is_number_integer();
  if (value_->is_number_float()) {
    const auto number = value_->get<double>();
    isIntegral = std::abs(number) >= fitsAll && std::trunc(number) == number;
  }
  if (isIntegral) fail(DecodingError::Kind::numberDoesNotFit, "is a number that does not fit");
  fail(DecodingError::Kind::typeMismatch, "is not an integer");
}

std::string JSONReader::path() const {
  std::vector<const JSONReader*> way;
  for (const auto* reader = this; reader->parent_ != nullptr; reader = reader->parent_) {
    way.push_back(reader);
  }
  std::string path;
  for (const auto* reader : std::views::reverse(way)) {
    if (reader->key_.empty()) {
      path += '[' + std::to_string(reader->index_) + ']';
    } else {
      if (!path.empty()) path += '.';
      path += reader->key_;
    }
  }
  return path;
}

}  // namespace tessaloom
