#include "HelperProtocol/StrictJSON.h"

#include <charconv>
#include <cstdint>
#include <utility>
#include <vector>

namespace tessaloom::StrictJSON {
namespace {

using nlohmann::json;

/// The number's text taken apart: its value is ±digits · 10^exponent.
struct DecimalNumber {
  bool negative = false;
  std::string digits;  // without leading or trailing zeros; empty for zero
  std::int64_t exponent = 0;
};

DecimalNumber takeApart(std::string_view text) {
  DecimalNumber number;
  if (text.starts_with('-')) {
    number.negative = true;
    text.remove_prefix(1);
  }
  const auto exponentMark = text.find_first_of("eE");
  const auto mantissa = text.substr(0, exponentMark);
  if (exponentMark != std::string_view::npos) {
    auto digits = text.substr(exponentMark + 1);
    const bool negative = digits.starts_with('-');
    if (negative || digits.starts_with('+')) digits.remove_prefix(1);
    // Past 64 bits the sign alone decides, whatever the digits before it are.
    constexpr std::int64_t huge = std::int64_t{1} << 62;
    std::int64_t magnitude = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), magnitude);
    if (error != std::errc() || magnitude > huge) magnitude = huge;
    number.exponent = negative ? -magnitude : magnitude;
  }

  const auto point = mantissa.find('.');
  number.digits = mantissa.substr(0, point);
  if (point != std::string_view::npos) {
    const auto fraction = mantissa.substr(point + 1);
    number.digits += fraction;
    number.exponent -= static_cast<std::int64_t>(fraction.size());
  }
  number.digits.erase(0, number.digits.find_first_not_of('0'));
  while (number.digits.ends_with('0')) {
    number.digits.pop_back();
    ++number.exponent;
  }
  return number;
}

/// The exact value of a number's text when it is integral and fits 64 bits, signed or unsigned.
std::optional<json> integralValue(std::string_view text) {
  DecimalNumber number = takeApart(text);
  if (number.digits.empty()) return json(std::uint64_t{0});
  constexpr std::size_t mostDigits = 20;  // of a 64-bit number
  if (number.exponent < 0 || number.exponent > static_cast<std::int64_t>(mostDigits) ||
      number.digits.size() + static_cast<std::size_t>(number.exponent) > mostDigits) {
    return std::nullopt;
  }
  number.digits.append(static_cast<std::size_t>(number.exponent), '0');
  if (number.negative) number.digits.insert(0, 1, '-');

  const char* begin = number.digits.data();
  const char* end = begin + number.digits.size();
  if (number.negative) {
    std::int64_t value = 0;
    if (std::from_chars(begin, end, value).ec != std::errc()) return std::nullopt;
    return json(value);
  }
  std::uint64_t value = 0;
  if (std::from_chars(begin, end, value).ec != std::errc()) return std::nullopt;
  return json(value);
}

/// Builds the value from the parser's events. The parser itself keeps its stack on the heap, so
/// with the depth bounded here nothing can recurse without limit.
class Builder : public nlohmann::json_sax<json> {
 public:
  json takeRoot() { return std::move(root_); }

  bool null() override { return add(nullptr); }
  bool boolean(bool value) override { return add(value); }
  bool number_integer(number_integer_t value) override { return add(value); }
  bool number_unsigned(number_unsigned_t value) override { return add(value); }
  bool number_float(number_float_t value, const string_t& text) override {
    if (auto integral = integralValue(text)) return add(std::move(*integral));
    return add(value);
  }
  bool string(string_t& value) override { return add(std::move(value)); }
  bool binary(binary_t&) override { return false; }

  bool start_object(std::size_t) override { return open(json::object()); }
  bool key(string_t& name) override {
    member_ = &(*open_.back())[std::move(name)];
    return true;
  }
  bool end_object() override { return close(); }
  bool start_array(std::size_t) override { return open(json::array()); }
  bool end_array() override { return close(); }

  bool parse_error(std::size_t, const std::string&, const json::exception&) override {
    return false;
  }

 private:
  json* place(json value) {
    json* slot = &root_;
    if (!open_.empty()) {
      if (open_.back()->is_array()) {
        open_.back()->push_back(std::move(value));
        return &open_.back()->back();
      }
      slot = member_;
    }
    *slot = std::move(value);
    return slot;
  }

  bool add(json value) {
    place(std::move(value));
    return true;
  }

  bool open(json container) {
    if (open_.size() == static_cast<std::size_t>(maximumDepth)) return false;
    open_.push_back(place(std::move(container)));
    return true;
  }

  bool close() {
    open_.pop_back();
    return true;
  }

  json root_;
  std::vector<json*> open_;  // the containers around the place that is read, outermost first
  json* member_ = nullptr;   // the value of the last key
};

}  // namespace

std::optional<json> parse(std::string_view text) {
  // The library takes a NUL for the end of its input and skips a byte order mark; JSON has neither.
  if (text.find('\0') != std::string_view::npos || text.starts_with("\xEF\xBB\xBF")) {
    return std::nullopt;
  }
  Builder builder;
  if (!json::sax_parse(text.begin(), text.end(), &builder)) return std::nullopt;
  return builder.takeRoot();
}

std::optional<std::string> serialise(const json& value) {
  if (!value.is_structured()) return std::nullopt;
  try {
    return value.dump();
  } catch (const json::type_error&) {  // a text that is not UTF-8
    return std::nullopt;
  }
}

}  // namespace tessaloom::StrictJSON
