#include "JSONWriter.h"

#include <array>
#include <charconv>

#include "HelperProtocol/CodingError.h"
#include "TLFoundation/Unicode.h"

namespace tessaloom {
namespace {

bool needsEscape(char character) {
  return static_cast<unsigned char>(character) < 0x20 || character == '"' || character == '\\';
}

}  // namespace

void JSONWriter::key(std::string_view name) {
  if (text_.back() != '{') text_ += ',';
  text_ += '"';
  text_ += name;
  text_ += "\":";
  lastKey_ = name;
}

void JSONWriter::element() {
  if (text_.back() != '[') text_ += ',';
}

void JSONWriter::string(std::string_view value) {
  if (!Unicode::isValidUTF8(value)) fail("is not valid UTF-8");
  text_ += '"';
  std::size_t written = 0;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (!needsEscape(value[i])) continue;
    text_.append(value, written, i - written);
    escape(value[i]);
    written = i + 1;
  }
  text_.append(value, written);
  text_ += '"';
}

void JSONWriter::integer(std::int64_t value) {
  std::array<char, 20> digits{};
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  text_.append(digits.data(), result.ptr);
}

void JSONWriter::fail(std::string_view problem) const {
  const std::string subject(lastKey_.empty() ? "The value" : lastKey_);
  throw EncodingError(EncodingError::Kind::invalidValue, subject + " " + std::string(problem));
}

void JSONWriter::escape(char character) {
  switch (character) {
    case '"':
      text_ += "\\\"";
      return;
    case '\\':
      text_ += "\\\\";
      return;
    case '\b':
      text_ += "\\b";
      return;
    case '\f':
      text_ += "\\f";
      return;
    case '\n':
      text_ += "\\n";
      return;
    case '\r':
      text_ += "\\r";
      return;
    case '\t':
      text_ += "\\t";
      return;
    default:
      break;
  }
  constexpr std::string_view digits = "0123456789abcdef";
  const auto code = static_cast<unsigned char>(character);
  text_ += "\\u00";
  text_ += digits[code >> 4];
  text_ += digits[code & 0x0F];
}

}  // namespace tessaloom
