// A program of its own, because it replaces the allocator: no allocation that fails ends the
// process.

#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "HelperCore/GenerationOutputParser.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/HelperCoding.h"

namespace {

constexpr std::size_t never = std::numeric_limits<std::size_t>::max();

std::atomic<std::size_t> live = 0;
std::atomic<std::size_t> untilFailure = never;

}  // namespace

void* operator new(std::size_t size) {
  if (untilFailure != never && untilFailure-- == 0) throw std::bad_alloc();
  void* block = std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  live += malloc_usable_size(block);
  return block;
}

void operator delete(void* block) noexcept {
  if (block != nullptr) live -= malloc_usable_size(block);
  std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
  operator delete(block);
}

namespace tessaloom {
namespace {

using Read = std::function<void(const std::string&)>;

template <class Record>
void readBody(const std::string& text) {
  try {
    std::ignore = HelperCoding::makeDecoder().decode<Record>(text);
  } catch (const std::runtime_error&) {
  }
}

template <auto Parse>
void readOutput(const std::string& text) {
  std::ignore = Parse(text, GenerationShape::itemFields, {});
}

// Whichever allocation fails, reading ends in std::bad_alloc and gives back what it had.
TEST(Memory, NoFailedAllocationEndsTheProcess) {
  const std::string fields =
      R"({"itemDescription":"a description that is long enough","tags":["a tag that is long too"],)"
      R"("globs":[],"alwaysApply":true})";
  const struct {
    Read read;
    std::string text;
  } rows[] = {
      {readBody<GenerationRequest>,
       R"({"instructions":"instructions of some length","prompt":"a prompt of some length",)"
       R"("requestID":"0F8FAD5B-D9CB-469F-A165-70867728950E","engine":"codex","shape":"freeText",)"
       R"("timeout":5,"unknown":[[[{"a":[]}]]]})"},
      {readBody<GeneratedFields>, fields},
      {readOutput<GenerationOutputParser::parseClaude>, "{\"structured_output\":" + fields + "}"},
      {readOutput<GenerationOutputParser::parseCodex>,
       R"({"type":"item.completed","item":{"type":"agent_message","text":"{}"}})"},
  };
  for (const auto& row : rows) {
    const std::size_t before = live;
    bool hasFailed = true;
    for (std::size_t allocation = 0; hasFailed; ++allocation) {
      ASSERT_LT(allocation, 1'000U);
      bool isReported = false;
      untilFailure = allocation;
      try {
        row.read(row.text);
      } catch (const std::bad_alloc&) {
        isReported = true;
      }
      hasFailed = untilFailure.exchange(never) == never;
      EXPECT_EQ(isReported, hasFailed) << row.text;
      EXPECT_EQ(live, before) << row.text;
    }
  }
}

}  // namespace
}  // namespace tessaloom
