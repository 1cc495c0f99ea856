// Reads the input as the body of every message. A record that was read survives writing and reading
// unchanged; a refusal is one of the documented errors, with a text that can be shown as it is.

#include "HelperProtocol/HelperCoding.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "HelperProtocol/CodingError.h"
#include "HelperProtocol/EngineStatus.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/GenerationErrorPayload.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationResult.h"
#include "HelperProtocol/HelperCapabilities.h"
#include "HelperProtocol/HelperDTOError.h"
#include "HelperProtocol/HelperFreshness.h"
#include "HelperProtocol/JSONReader.h"
#include "HelperProtocol/ProcessMessages.h"
#include "Require.h"
#include "TLFoundation/DisplayString.h"
#include "TLFoundation/Unicode.h"

using namespace tessaloom;

namespace {

constexpr std::int64_t messageLimit = 500;

template <class Record>
std::optional<Record> decoded(std::string_view body) {
  try {
    return HelperCoding::makeDecoder().decode<Record>(body);
  } catch (const DecodingError& error) {
    REQUIRE(DisplayString::singleLine(error.what(), messageLimit) == error.what());
  } catch (const GenerationDTOError&) {
  } catch (const HelperDTOError&) {
  }
  return std::nullopt;
}

template <class Record>
void checkRoundTrip(std::string_view body) {
  const auto record = decoded<Record>(body);
  if (!record) return;
  const auto written = HelperCoding::makeEncoder().encode(*record);
  REQUIRE(decoded<Record>(written) == record);
}

/// Whether the text is JSON.
bool checkJSON(std::string_view text) {
  JSONText value;
  if (JSONReader::read(text, value)) return false;
  REQUIRE(Unicode::isValidUTF8(text));
  JSONText again;
  REQUIRE(!JSONReader::read(value.text(), again));
  REQUIRE(again.text() == value.text());
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  // What is not JSON is refused before the record matters, so one record is enough.
  if (!checkJSON(body)) {
    REQUIRE(!decoded<GenerationRequest>(body));
    return 0;
  }
  checkRoundTrip<GenerationRequest>(body);
  checkRoundTrip<GenerationCancelRequest>(body);
  checkRoundTrip<EngineStatusRequest>(body);
  checkRoundTrip<KillRequest>(body);
  checkRoundTrip<GenerationResult>(body);
  checkRoundTrip<GenerationErrorPayload>(body);
  checkRoundTrip<EngineStatus>(body);
  checkRoundTrip<KillResult>(body);
  checkRoundTrip<HelperCapabilities>(body);
  checkRoundTrip<HelperFreshness>(body);
  checkRoundTrip<std::vector<ProcessSample>>(body);
  checkRoundTrip<std::vector<PortSample>>(body);
  return 0;
}
