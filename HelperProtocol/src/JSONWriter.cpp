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

void appendEscaped(std::string& text, char character) {
  switch (character) {
    case '"':
      text += "\\\"";
      return;
    case '\\':
      text += "\\\\";
      return;
    case '\b':
      text += "\\b";
      return;
    case '\f':
      text += "\\f";
      return;
    case '\n':
      text += "\\n";
      return;
    case '\r':
      text += "\\r";
      return;
    case '\t':
      text += "\\t";
      return;
    default:
      break;
  }
  constexpr std::string_view digits = "0123456789abcdef";
  const auto code = static_cast<unsigned char>(character);
  text += "\\u00";
  text += digits[code >> 4];
  text += digits[code & 0x0F];
}

}  // namespace

void appendQuoted(std::string& text, std::string_view value) {
  text += '"';
  std::size_t written = 0;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (!needsEscape(value[i])) continue;
    text.append(value, written, i - written);
    appendEscaped(text, value[i]);
    written = i + 1;
  }
  text.append(value, written);
  text += '"';
}

void appendInteger(std::string& text, std::int64_t value) {
  std::array<char, 20> digits{};
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value);
  text.append(digits.data(), result.ptr);
}

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
  appendQuoted(text_, value);
}

void JSONWriter::fail(std::string_view problem) const {
  const std::string subject(lastKey_.empty() ? "The value" : lastKey_);
  throw EncodingError(EncodingError::Kind::invalidValue, subject + " " + std::string(problem));
}

}  // namespace tessaloom
