#include "HelperProtocol/UUID.h"

#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tessaloom {
namespace {

constexpr std::size_t textLength = 36;

constexpr bool isHyphenPosition(std::size_t position) {
  return position == 8 || position == 13 || position == 18 || position == 23;
}

std::optional<std::uint8_t> hexadecimalDigit(char digit) {
  if (digit >= '0' && digit <= '9') return static_cast<std::uint8_t>(digit - '0');
  if (digit >= 'a' && digit <= 'f') return static_cast<std::uint8_t>(digit - 'a' + 10);
  if (digit >= 'A' && digit <= 'F') return static_cast<std::uint8_t>(digit - 'A' + 10);
  return std::nullopt;
}

}  // namespace

std::optional<UUID> UUID::parse(std::string_view text) {
  if (text.size() != textLength) return std::nullopt;
  std::array<std::uint8_t, 16> bytes{};
  std::size_t digits = 0;
  for (std::size_t i = 0; i < textLength; ++i) {
    if (isHyphenPosition(i)) {
      if (text[i] != '-') return std::nullopt;
      continue;
    }
    const auto digit = hexadecimalDigit(text[i]);
    if (!digit) return std::nullopt;
    auto& byte = bytes[digits++ / 2];
    byte = static_cast<std::uint8_t>(byte << 4 | *digit);
  }
  return UUID(bytes);
}

UUID UUID::random() {
  std::array<std::uint8_t, 16> bytes{};
  if (getentropy(bytes.data(), bytes.size()) != 0) {
    throw std::system_error(errno, std::generic_category(), "getentropy");
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4: random
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // the RFC's variant
  return UUID(bytes);
}

std::string UUID::string() const {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::string text;
  for (const auto byte : bytes_) {
    if (isHyphenPosition(text.size())) text.push_back('-');
    text.push_back(digits[byte >> 4]);
    text.push_back(digits[byte & 0x0F]);
  }
  return text;
}

}  // namespace tessaloom
