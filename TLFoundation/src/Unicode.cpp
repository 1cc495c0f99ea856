#include "TLFoundation/Unicode.h"

#include <utf8proc.h>

#include "Graphemes.h"
#include "UTF8.h"

namespace tessaloom::Unicode {
namespace {

bool isWhiteSpace(char32_t scalar) {
  switch (scalar) {
    case 0x0020:
    case 0x0085:
    case 0x00A0:
    case 0x1680:
    case 0x2028:
    case 0x2029:
    case 0x202F:
    case 0x205F:
    case 0x3000:
      return true;
    default:
      return (scalar >= 0x0009 && scalar <= 0x000D) || (scalar >= 0x2000 && scalar <= 0x200A);
  }
}

/// CR LF is the only pair of ASCII characters that is one user-perceived character.
std::size_t characterCountOfASCII(std::string_view text) {
  std::size_t count = text.size();
  for (auto cr = text.find('\r'); cr != std::string_view::npos; cr = text.find('\r', cr + 1)) {
    if (cr + 1 < text.size() && text[cr + 1] == '\n') --count;
  }
  return count;
}

/// The first place from `position` on between two ASCII characters that are not CR LF, or the end.
std::size_t certainBoundary(std::string_view text, std::size_t position) {
  for (++position; position < text.size(); ++position) {
    const bool isCRLF = text[position - 1] == '\r' && text[position] == '\n';
    if (UTF8::isASCII(text[position - 1]) && UTF8::isASCII(text[position]) && !isCRLF) {
      return position;
    }
  }
  return text.size();
}

std::string_view afterCharacters(std::string_view text, std::size_t count) {
  std::size_t position = 0;
  for (; count > 0; --count) position = endOfCharacter(text, position);
  return text.substr(position);
}

}  // namespace

bool isValidUTF8(std::string_view bytes) {
  std::size_t position = 0;
  while ((position = UTF8::endOfASCII(bytes, position)) < bytes.size()) {
    const auto scalar = UTF8::decode(bytes, position);
    if (!scalar.wellFormed) return false;
    position += scalar.length;
  }
  return true;
}

std::string repairUTF8(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  std::size_t copied = 0;
  std::size_t position = 0;
  while ((position = UTF8::endOfASCII(bytes, position)) < bytes.size()) {
    const auto scalar = UTF8::decode(bytes, position);
    if (!scalar.wellFormed) {
      text.append(bytes, copied, position - copied);
      UTF8::append(text, UTF8::replacementCharacter);
      copied = position + scalar.length;
    }
    position += scalar.length;
  }
  return text.append(bytes, copied);
}

std::string_view firstScalar(std::string_view text) {
  return text.substr(0, UTF8::decode(text, 0).length);
}

std::size_t characterCount(std::string_view text) {
  std::size_t count = 0;
  std::size_t position = 0;
  while (position < text.size()) {
    const std::size_t end = UTF8::endOfASCII(text, position);
    if (end == text.size()) return count + characterCountOfASCII(text.substr(position));
    // The last ASCII character may carry an accent, unless it is a line feed.
    const bool leavesLast = end > position && text[end - 1] != '\n';
    const std::size_t safe = leavesLast ? end - 1 : end;
    count += characterCountOfASCII(text.substr(position, safe - position));
    position = safe;
    position = endOfCharacter(text, position);
    ++count;
  }
  return count;
}

std::string_view lastCharacters(std::string_view text, std::size_t count) {
  // The end of a long text usually suffices; it starts where a boundary is certain.
  for (std::size_t window = count; window < text.size() / 4;) {
    window = 4 * window + 64;
    if (window >= text.size()) break;
    const auto start = certainBoundary(text, text.size() - window);
    const auto tail = text.substr(start);
    const auto total = characterCount(tail);
    if (total >= count) return afterCharacters(tail, total - count);
  }
  if (text.size() <= count) return text;
  const auto total = characterCount(text);
  return total <= count ? text : afterCharacters(text, total - count);
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty()) {
    const auto first = UTF8::decode(text, 0);
    if (!isWhiteSpace(first.scalar)) break;
    text.remove_prefix(first.length);
  }
  while (!text.empty()) {
    const auto last = UTF8::decodeLast(text);
    if (!isWhiteSpace(last.scalar)) break;
    text.remove_suffix(last.length);
  }
  return text;
}

std::string lowercased(std::string_view text) {
  std::string lower;
  lower.reserve(text.size());
  for (std::size_t position = 0; position < text.size();) {
    const auto [scalar, length, wellFormed] = UTF8::decode(text, position);
    if (scalar < 0x80) {
      lower.push_back(static_cast<char>(scalar >= 'A' && scalar <= 'Z' ? scalar + 0x20 : scalar));
    } else if (scalar == 0x0130) {
      lower += "i\u0307";  // The one lower-case mapping to two scalars without a condition.
    } else if (wellFormed) {
      const auto mapped = utf8proc_tolower(static_cast<utf8proc_int32_t>(scalar));
      UTF8::append(lower, static_cast<char32_t>(mapped));
    } else {
      lower.append(text, position, length);
    }
    position += length;
  }
  return lower;
}

}  // namespace tessaloom::Unicode
