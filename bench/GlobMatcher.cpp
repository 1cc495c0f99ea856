// One match of a glob against a path, by the path's length, beside fnmatch(3), which knows no **,
// and PCRE2 with its just-in-time compiler and the regular expression that says the same. All
// patterns are prepared beforehand as far as each matcher allows.

#include "TLFoundation/GlobMatcher.h"

#include <fnmatch.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

namespace tessaloom {
namespace {

struct Case {
  const char* name;
  std::string glob;
  bool fnmatchKnowsIt;
  std::string expression;
  std::string path;
  bool caseInsensitive;
  bool expected;
};

/// The text, repeated.
std::string repeated(const std::string& text, std::size_t count) {
  std::string result;
  while (count-- > 0) result += text;
  return result;
}

/// All cases with paths of about this length.
std::vector<Case> casesOf(std::size_t length) {
  const std::string name = repeated("s", length);
  return {
      {"literal", name + ".cpp", true, "\\A" + name + R"(\.cpp\z)", name + ".cpp", false, true},
      {"star", "docs/*.md", true, R"(\Adocs/[^/]*\.md\z)", "docs/" + name + ".md", false, true},
      {"double star", "src/**/*.md", false, R"(\Asrc/(?:[^/]+/)*[^/]*\.md\z)",
       "src/" + repeated("guides/", length / 7) + "readme.md", false, true},
      {"ignoring case", "*.MD", true, R"((?i)\A[^/]*\.MD\z)", repeated("S", length) + ".md", true,
       true},
      {"not ASCII", "r\u00E9sum\u00E9s/*.md", true, "\\Ar\u00E9sum\u00E9s/[^/]*\\.md\\z",
       "r\u00E9sum\u00E9s/" + repeated("\u00EF", length) + ".md", false, true},
      {"hostile", "*a*a*a*a*b", true, R"(\A[^/]*a[^/]*a[^/]*a[^/]*a[^/]*b\z)",
       repeated("a", length), false, false},
      {"hostile double stars", "**/a/**/a/**/a/**/a/**/b", false,
       R"(\A(?:[^/]+/)*a/(?:[^/]+/)*a/(?:[^/]+/)*a/(?:[^/]+/)*a/(?:[^/]+/)*b\z)",
       repeated("a/", length / 2) + "c", false, false},
  };
}

/// Times `matches` once its answer is known to be right.
template <class Matches>
void run(benchmark::State& state, const Case& row, Matches matches) {
  if (matches() != row.expected) {
    state.SkipWithError("wrong answer");
    return;
  }
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(matches());
}

void globMatcher(benchmark::State& state, const Case& row) {
  const GlobMatcher matcher(row.glob, row.caseInsensitive);
  run(state, row, [&] { return matcher.matches(row.path); });
}

void systemMatcher(benchmark::State& state, const Case& row) {
  const int flags = FNM_PATHNAME | (row.caseInsensitive ? FNM_CASEFOLD : 0);
  run(state, row, [&] { return fnmatch(row.glob.c_str(), row.path.c_str(), flags) == 0; });
}

void regularExpression(benchmark::State& state, const Case& row) {
  int error = 0;
  PCRE2_SIZE offset = 0;
  pcre2_code* code =
      pcre2_compile(reinterpret_cast<PCRE2_SPTR>(row.expression.c_str()), PCRE2_ZERO_TERMINATED,
                    PCRE2_UTF | PCRE2_UCP, &error, &offset, nullptr);
  if (code == nullptr) throw std::invalid_argument(row.expression);
  pcre2_jit_compile(code, PCRE2_JIT_COMPLETE);
  pcre2_match_data* data = pcre2_match_data_create_from_pattern(code, nullptr);
  run(state, row, [&] {
    return pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(row.path.data()), row.path.size(), 0, 0,
                       data, nullptr) > 0;
  });
  pcre2_match_data_free(data);
  pcre2_code_free(code);
}

const bool registered = [] {
  for (const std::size_t length : {32UL, 256UL}) {
    const std::string size = "/" + std::to_string(length);
    for (const auto& row : casesOf(length)) {
      const auto add = [&](const std::string& matcher,
                           void (*match)(benchmark::State&, const Case&)) {
        benchmark::RegisterBenchmark((row.name + matcher + size).c_str(), match, row);
      };
      add("/helper", globMatcher);
      if (row.fnmatchKnowsIt) add("/fnmatch", systemMatcher);
      add("/PCRE2", regularExpression);
    }
  }
  return true;
}();

}  // namespace
}  // namespace tessaloom
