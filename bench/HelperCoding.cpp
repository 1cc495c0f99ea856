// Listings as they cross the connection, by their number of rows, texts at the limits of a request,
// and bodies up to the largest that is taken, by their bytes, beside the JSON library.

#include "HelperProtocol/HelperCoding.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

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

/// Times `work` under a name of the form SUBJECT/PEER[/SIZE].
template <class Work>
void add(const std::string& name, Work work) {
  benchmark::RegisterBenchmark(name.c_str(), [work](benchmark::State& state) {
    for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(work());
  })->Unit(benchmark::kMicrosecond);
}

/// Beside the library's own reading of the same text into a document, without a look at what it
/// says.
template <class Record>
void addDecoding(const std::string& subject, const std::string& size, const std::string& body) {
  add(subject + "/helper" + size,
      [body] { return HelperCoding::makeDecoder().decode<Record>(body); });
  add(subject + "/nlohmann parse" + size, [body] { return nlohmann::json::parse(body); });
}

void addListing(std::int64_t rows) {
  const auto samples = listing(rows);
  const auto body = HelperCoding::makeEncoder().encode(samples);
  const std::string size = "/" + std::to_string(rows);
  add("encode a listing/helper" + size,
      [samples] { return HelperCoding::makeEncoder().encode(samples); });
  add("encode a listing/nlohmann dump" + size,
      [document = nlohmann::json::parse(body)] { return document.dump(); });
  addDecoding<std::vector<ProcessSample>>("decode a listing", size, body);
}

void addRequest(const std::string& subject, const std::string& character) {
  std::string prompt;
  for (std::int64_t i = 0; i < GenerationRequest::promptLimit; ++i) prompt += character;
  const GenerationRequest request(UUID::random(), GenerationEngineID::codex,
                                  GenerationShape::freeText, "", prompt, GenerationTimeout());
  addDecoding<GenerationRequest>(subject, "", HelperCoding::makeEncoder().encode(request));
}

/// A body of `bytes` bytes that consists of small values with unknown keys.
void addHostileValues(std::size_t bytes) {
  std::string body = R"({"requestID":")" + UUID::random().string() + R"(","others":[0)";
  while (body.size() + 4 <= bytes) body += ",0";
  body.resize(bytes - 2, ' ');
  body += "]}";
  addDecoding<GenerationCancelRequest>("decode hostile values", "/" + std::to_string(bytes), body);
}

const bool registered = [] {
  for (const std::int64_t rows : {150, 1'000, 5'000}) addListing(rows);
  addRequest("decode a prompt in ASCII", "x");
  addRequest("decode a prompt with accents", "e\u0301");
  for (const std::size_t mebibytes : {1UL, 16UL}) addHostileValues(mebibytes << 20);
  return true;
}();

}  // namespace
}  // namespace tessaloom
