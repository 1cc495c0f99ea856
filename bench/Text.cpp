// Counting the user-perceived characters of a prompt, up to the longest that a request allows,
// beside utf8proc's own walk through the text and ICU's break iterator.

#include <unicode/ubrk.h>
#include <unicode/utext.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include <benchmark/benchmark.h>
#include <utf8proc.h>

#include "TLFoundation/Unicode.h"

namespace tessaloom {
namespace {

std::size_t helperCount(std::string_view text) {
  return Unicode::characterCount(text);
}

std::size_t utf8procCount(std::string_view text) {
  const auto* next = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  const auto* end = next + text.size();
  utf8proc_int32_t previous = 0;
  utf8proc_int32_t state = 0;
  std::size_t count = text.empty() ? 0 : 1;
  for (bool isFirst = true; next < end; isFirst = false) {
    utf8proc_int32_t scalar = 0;
    next += utf8proc_iterate(next, end - next, &scalar);
    if (!isFirst && utf8proc_grapheme_break_stateful(previous, scalar, &state)) ++count;
    previous = scalar;
  }
  return count;
}

std::size_t icuCount(std::string_view text) {
  UErrorCode error = U_ZERO_ERROR;
  static UBreakIterator* iterator = ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &error);
  UText* source =
      utext_openUTF8(nullptr, text.data(), static_cast<std::int64_t>(text.size()), &error);
  ubrk_setUText(iterator, source, &error);
  if (U_FAILURE(error)) throw std::runtime_error(u_errorName(error));
  std::size_t count = 0;
  while (ubrk_next(iterator) != UBRK_DONE) ++count;
  utext_close(source);
  return count;
}

/// Times `count` once its answer is known to be right.
void run(benchmark::State& state, const char* character, std::size_t (*count)(std::string_view),
         std::size_t length) {
  std::string text;
  for (std::size_t i = 0; i < length; ++i) text += character;
  if (count(text) != length) return state.SkipWithError("wrong answer");
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(count(text));
}

const bool registered = [] {
  const struct {
    const char* name;
    const char* character;
  } texts[] = {{"ASCII", "x"},        {"accented", "\u00E9"},  {"combining", "e\u0301"},
               {"Chinese", "\u6587"}, {"emoji", "\U0001F600"}, {"Devanagari", "\u0915\u093F"}};
  for (const auto& [name, character] : texts) {
    const auto add = [&](const char* counter, std::size_t (*count)(std::string_view)) {
      for (const std::size_t length : {4'000UL, 64'000UL}) {
        const auto row = std::string(name) + "/" + counter + "/" + std::to_string(length);
        benchmark::RegisterBenchmark(row.c_str(), run, character, count, length)
            ->Unit(benchmark::kMicrosecond);
      }
    };
    add("helper", helperCount);
    add("utf8proc", utf8procCount);
    add("ICU", icuCount);
  }
  return true;
}();

}  // namespace
}  // namespace tessaloom
