// One match of a glob against a path, beside fnmatch(3), which knows no **, and PCRE2 with its
// just-in-time compiler and the regular expression that says the same. All patterns are prepared
// beforehand as far as each matcher allows.

#include "TLFoundation/GlobMatcher.h"

#include <fnmatch.h>

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

namespace tessaloom {
namespace {

struct Case {
  const char* name;
  const char* glob;
  const char* fnmatch;  // null where fnmatch has no equal
  const char* expression;
  std::string path;
  bool caseInsensitive;
  bool expected;
};

const std::array cases{
    Case{"literal", "src/main.cpp", "src/main.cpp", R"(\Asrc/main\.cpp\z)", "src/main.cpp", false,
         true},
    Case{"star", "docs/*.md", "docs/*.md", R"(\Adocs/[^/]*\.md\z)", "docs/getting-started.md",
         false, true},
    Case{"double star", "src/**/*.md", nullptr, R"(\Asrc/(?:[^/]+/)*[^/]*\.md\z)",
         "src/documentation/guides/getting-started/readme.md", false, true},
    Case{"ignoring case", "*.MD", "*.MD", R"((?i)\A[^/]*\.MD\z)", "Getting-Started.md", true, true},
    Case{"not ASCII", "r\u00E9sum\u00E9s/*.md", "r\u00E9sum\u00E9s/*.md",
         "\\Ar\u00E9sum\u00E9s/[^/]*\\.md\\z", "r\u00E9sum\u00E9s/na\u00EFve.md", false, true},
    Case{"hostile", "*a*a*a*a*b", "*a*a*a*a*b", R"(\A[^/]*a[^/]*a[^/]*a[^/]*a[^/]*b\z)",
         std::string(48, 'a'), false, false},
    Case{"hostile double stars", "**/a/**/a/**/a/**/a/**/b", nullptr,
         R"(\A(?:[^/]+/)*a/(?:[^/]+/)*a/(?:[^/]+/)*a/(?:[^/]+/)*a/(?:[^/]+/)*b\z)",
         "a/a/a/a/a/a/a/a/a/a/a/a/a/a/a/a/a/a/a/a/a/a/a/c", false, false},
};

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
  run(state, row, [&] { return fnmatch(row.fnmatch, row.path.c_str(), flags) == 0; });
}

void regularExpression(benchmark::State& state, const Case& row) {
  int error = 0;
  PCRE2_SIZE offset = 0;
  pcre2_code* code =
      pcre2_compile(reinterpret_cast<PCRE2_SPTR>(row.expression), PCRE2_ZERO_TERMINATED,
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
  for (const auto& row : cases) {
    const std::string name = row.name;
    benchmark::RegisterBenchmark((name + "/helper").c_str(), globMatcher, row);
    if (row.fnmatch != nullptr) {
      benchmark::RegisterBenchmark((name + "/fnmatch").c_str(), systemMatcher, row);
    }
    benchmark::RegisterBenchmark((name + "/PCRE2").c_str(), regularExpression, row);
  }
  return true;
}();

}  // namespace
}  // namespace tessaloom
