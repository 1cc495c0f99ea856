// The first line of the input is a pattern, the rest a path; the first byte says whether case
// counts. The matcher must agree with the naive one about all of it.

#include "TLFoundation/GlobMatcher.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Require.h"
#include "TLFoundation/NaiveGlob.h"
#include "TLFoundation/Unicode.h"

using namespace tessaloom;

namespace {

std::optional<GlobMatcher> matcherOf(const std::string& pattern, bool caseInsensitive) {
  try {
    return GlobMatcher(pattern, caseInsensitive);
  } catch (const GlobPatternError& error) {
    REQUIRE(pattern.find(error.offending()) != std::string::npos);
    const auto offending = naive::decomposed(error.offending());
    REQUIRE(naive::failure(pattern) == GlobPatternError(error.kind(), offending));
    return std::nullopt;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t largestInput = 256;  // the naive matcher is slow
  if (size == 0 || size > largestInput) return 0;
  const bool caseInsensitive = data[0] % 2 == 0;
  const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
  const auto line = input.find('\n');
  auto pattern = Unicode::repairUTF8(input.substr(0, line));
  auto path = line == std::string_view::npos ? "" : Unicode::repairUTF8(input.substr(line + 1));

  const auto matcher = matcherOf(pattern, caseInsensitive);
  if (!matcher) return 0;
  REQUIRE(naive::failure(pattern) == std::nullopt);
  const bool matches = matcher->matches(path);
  REQUIRE(GlobMatcher(naive::decomposed(pattern), caseInsensitive) == *matcher);

  if (caseInsensitive) {
    pattern = Unicode::lowercased(pattern);
    path = Unicode::lowercased(path);
  }
  REQUIRE(matches == naive::matches(naive::pieces(pattern), naive::pieces(path)));
  return 0;
}
