#include "ISO8601.h"

#include <chrono>
#include <cmath>
#include <cstdint>

namespace tessaloom::ISO8601 {
namespace {

using std::chrono::sys_days;
using std::chrono::sys_seconds;

constexpr std::string_view form = "0000-00-00T00:00:00Z";  // a 0 matches any digit

constexpr sys_seconds earliest = sys_days(std::chrono::year(0) / 1 / 1);
constexpr sys_seconds afterLatest = sys_days(std::chrono::year(10000) / 1 / 1);

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool hasForm(std::string_view text, std::string_view expected) {
  if (text.size() != expected.size()) return false;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (expected[i] == '0' ? !isDigit(text[i]) : text[i] != expected[i]) return false;
  }
  return true;
}

unsigned numberIn(std::string_view digits) {
  unsigned number = 0;
  for (const char digit : digits) number = number * 10 + static_cast<unsigned>(digit - '0');
  return number;
}

/// How far a zone is ahead of UTC: Z, +01:00 or +0100.
std::optional<std::chrono::minutes> offsetOf(std::string_view zone) {
  if (zone == "Z") return std::chrono::minutes(0);
  const bool isBehind = zone.starts_with('-');
  if (!isBehind && !zone.starts_with('+')) return std::nullopt;
  zone.remove_prefix(1);
  if (!hasForm(zone, "00:00") && !hasForm(zone, "0000")) return std::nullopt;
  const std::chrono::hours hours(numberIn(zone.substr(0, 2)));
  const std::chrono::minutes minutes(numberIn(zone.substr(zone.size() - 2)));
  if (hours.count() > 23 || minutes.count() > 59) return std::nullopt;
  return isBehind ? -(hours + minutes) : hours + minutes;
}

void writeNumber(std::string& text, std::size_t position, std::size_t width, std::int64_t number) {
  for (std::size_t i = position + width; i-- > position; number /= 10) {
    text[i] = static_cast<char>('0' + number % 10);
  }
}

}  // namespace

std::optional<std::string> string(Instant instant) {
  const double seconds = std::floor(instant.time_since_epoch().count());
  const auto lower = static_cast<double>(earliest.time_since_epoch().count());
  const auto upper = static_cast<double>(afterLatest.time_since_epoch().count());
  if (!(seconds >= lower && seconds < upper)) return std::nullopt;  // not a number included

  const sys_seconds second{std::chrono::seconds(static_cast<std::int64_t>(seconds))};
  const auto day = std::chrono::floor<std::chrono::days>(second);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss time(second - day);
  std::string text(form);
  writeNumber(text, 0, 4, static_cast<int>(date.year()));
  writeNumber(text, 5, 2, static_cast<unsigned>(date.month()));
  writeNumber(text, 8, 2, static_cast<unsigned>(date.day()));
  writeNumber(text, 11, 2, time.hours().count());
  writeNumber(text, 14, 2, time.minutes().count());
  writeNumber(text, 17, 2, time.seconds().count());
  return text;
}

std::optional<Instant> parse(std::string_view text) {
  constexpr std::size_t zone = form.size() - 1;
  if (text.size() < form.size() || !hasForm(text.substr(0, zone), form.substr(0, zone))) {
    return std::nullopt;
  }
  const auto offset = offsetOf(text.substr(zone));
  const std::chrono::year_month_day date(
      std::chrono::year(static_cast<int>(numberIn(text.substr(0, 4)))),
      std::chrono::month(numberIn(text.substr(5, 2))),
      std::chrono::day(numberIn(text.substr(8, 2))));
  const std::chrono::hours hours(numberIn(text.substr(11, 2)));
  const std::chrono::minutes minutes(numberIn(text.substr(14, 2)));
  const std::chrono::seconds seconds(numberIn(text.substr(17, 2)));
  if (!offset || !date.ok() || hours.count() > 23 || minutes.count() > 59 || seconds.count() > 59) {
    return std::nullopt;
  }
  const sys_seconds second = sys_days(date) + hours + minutes + seconds - *offset;
  if (second < earliest || second >= afterLatest) return std::nullopt;  // could not be written
  return Instant(second);
}

}  // namespace tessaloom::ISO8601
