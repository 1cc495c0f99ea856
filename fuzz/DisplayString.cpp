// Passes the input through the functions of DisplayString and Unicode and checks how their results
// relate. The first byte chooses the limits.

#include "TLFoundation/DisplayString.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "Require.h"
#include "TLFoundation/NaiveCharacters.h"
#include "TLFoundation/Unicode.h"

using namespace tessaloom;

namespace {

/// The scalars of a valid text: the bytes that continue none.
std::size_t scalarCount(std::string_view text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(text, [](char byte) { return (byte & 0xC0) != 0x80; }));
}

void checkCleaning(std::string_view bytes, const std::string& text, std::int64_t limit) {
  const auto unbounded = static_cast<std::int64_t>(bytes.size());
  const auto line = DisplayString::singleLine(bytes, limit);
  const auto whole = DisplayString::singleLine(bytes, unbounded);
  REQUIRE(Unicode::isValidUTF8(line));
  REQUIRE(scalarCount(line) == std::min(scalarCount(whole), static_cast<std::size_t>(limit)));
  REQUIRE(whole.starts_with(line));
  REQUIRE(DisplayString::singleLine(line, limit) == line);
  REQUIRE(DisplayString::singleLine(text, limit) == line);

  const auto lines = DisplayString::multiLine(bytes, limit);
  REQUIRE(Unicode::isValidUTF8(lines));
  REQUIRE(std::cmp_less_equal(scalarCount(lines), limit));
  REQUIRE(DisplayString::multiLine(lines, limit) == lines);
  REQUIRE(DisplayString::singleLine(DisplayString::multiLine(bytes, unbounded), limit) == line);
}

void checkCharacters(const std::string& text, std::size_t count) {
  const auto total = Unicode::characterCount(text);
  REQUIRE(total == naive::characters(text).size());
  const auto last = Unicode::lastCharacters(text, count);
  REQUIRE(text.ends_with(last));
  REQUIRE(Unicode::characterCount(last) == std::min(total, count));
}

void checkWhiteSpaceAndCase(const std::string& text) {
  const auto trimmed = Unicode::trimmed(text);
  REQUIRE(text.find(trimmed) != std::string::npos);
  REQUIRE(Unicode::trimmed(trimmed) == trimmed);
  const auto lower = Unicode::lowercased(text);
  REQUIRE(Unicode::isValidUTF8(lower));
  REQUIRE(Unicode::lowercased(lower) == lower);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  const auto text = Unicode::repairUTF8(bytes);
  REQUIRE(Unicode::isValidUTF8(text));
  REQUIRE(Unicode::isValidUTF8(bytes) == (text == bytes));

  checkCleaning(bytes, text, data[0]);
  checkCharacters(text, data[0]);
  checkWhiteSpaceAndCase(text);
  return 0;
}
