// Listings as they cross the connection, by their number of rows, and texts at the limits of a
// request.

#include "HelperProtocol/HelperCoding.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/ProcessMessages.h"

namespace tessaloom {
namespace {

std::vector<ProcessSample> listing(std::int64_t rows) {
  std::vector<ProcessSample> samples;
  for (std::int32_t pid = 1; pid <= rows; ++pid) {
    samples.emplace_back(pid, 1, "pts/3", Instant(std::chrono::seconds(1'795'255'200 + pid)), pid,
                         4096LL * pid, "some-process-name");
  }
  return samples;
}

void encodeListing(benchmark::State& state) {
  const auto samples = listing(state.range(0));
  for ([[maybe_unused]] auto _ : state) {
    benchmark::DoNotOptimize(HelperCoding::makeEncoder().encode(samples));
  }
}
BENCHMARK(encodeListing)->Arg(150)->Arg(1'000)->Arg(5'000)->Unit(benchmark::kMicrosecond);

void decodeListing(benchmark::State& state) {
  const auto body = HelperCoding::makeEncoder().encode(listing(state.range(0)));
  for ([[maybe_unused]] auto _ : state) {
    const auto samples = HelperCoding::makeDecoder().decode<std::vector<ProcessSample>>(body);
    benchmark::DoNotOptimize(samples.data());
  }
}
BENCHMARK(decodeListing)->Arg(150)->Arg(1'000)->Arg(5'000)->Unit(benchmark::kMicrosecond);

void decodeRequest(benchmark::State& state, const std::string& character) {
  std::string prompt;
  for (std::int64_t i = 0; i < GenerationRequest::promptLimit; ++i) prompt += character;
  const auto body = HelperCoding::makeEncoder().encode(
      GenerationRequest(UUID::random(), GenerationEngineID::codex, GenerationShape::freeText, "",
                        prompt, GenerationTimeout()));
  for ([[maybe_unused]] auto _ : state) {
    const auto request = HelperCoding::makeDecoder().decode<GenerationRequest>(body);
    benchmark::DoNotOptimize(request.prompt().data());
  }
}
BENCHMARK_CAPTURE(decodeRequest, ASCII, "x")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(decodeRequest, accents, "e\u0301")->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace tessaloom
