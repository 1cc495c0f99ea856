// Holds docs/protocol.md against the code: every example is read as the record that it shows, and
// every refused body is refused with the code and the words that the document gives.

#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "HelperProtocol/CodingError.h"
#include "HelperProtocol/EngineStatus.h"
#include "HelperProtocol/GenerationDTOError.h"
#include "HelperProtocol/GenerationErrorPayload.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationResult.h"
#include "HelperProtocol/HelperCapabilities.h"
#include "HelperProtocol/HelperCoding.h"
#include "HelperProtocol/HelperDTOError.h"
#include "HelperProtocol/HelperFreshness.h"
#include "HelperProtocol/Methods.h"
#include "HelperProtocol/ProcessMessages.h"

namespace tessaloom {
namespace {

using Recode = std::function<std::string(const std::string&)>;

template <class Record>
std::string recode(const std::string& body) {
  return HelperCoding::makeEncoder().encode(HelperCoding::makeDecoder().decode<Record>(body));
}

const std::map<std::string, Recode>& records() {
  static const std::map<std::string, Recode> all{
      {"HelperCapabilities", recode<HelperCapabilities>},
      {"HelperFreshness", recode<HelperFreshness>},
      {"GenerationRequest", recode<GenerationRequest>},
      {"GenerationCancelRequest", recode<GenerationCancelRequest>},
      {"GenerationResult", recode<GenerationResult>},
      {"GeneratedFields", recode<GeneratedFields>},
      {"GenerationTokens", recode<GenerationTokens>},
      {"GenerationErrorPayload", recode<GenerationErrorPayload>},
      {"EngineStatusRequest", recode<EngineStatusRequest>},
      {"EngineStatus", recode<EngineStatus>},
      {"KillRequest", recode<KillRequest>},
      {"KillResult", recode<KillResult>},
      {"[ProcessSample]", recode<std::vector<ProcessSample>>},
      {"[PortSample]", recode<std::vector<PortSample>>},
  };
  return all;
}

std::string document() {
  std::ifstream file(TESSALOOM_DOCS "/protocol.md");
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

/// Calls `use` with the groups of every match in the document, and tells how many there were.
std::size_t forEachMatch(const char* pattern,
                         const std::function<void(const std::vector<std::string>&)>& use) {
  const std::string text = document();
  const std::regex expression(pattern);
  std::size_t count = 0;
  for (std::sregex_iterator match(text.begin(), text.end(), expression), end; match != end;
       ++match, ++count) {
    use({match->begin(), match->end()});
  }
  return count;
}

TEST(ProtocolDocument, EveryExampleIsTheRecordThatItShows) {
  std::set<std::string> shown;
  forEachMatch("```json (\\S+)\n([^`]+)```", [&shown](const std::vector<std::string>& groups) {
    const std::string& name = groups[1];
    SCOPED_TRACE(name + ": " + groups[2]);
    const auto record = records().find(name);
    ASSERT_NE(record, records().end());
    // Written again it is the same, keys in the same order: the examples lack nothing and hold
    // nothing that is ignored.
    using Json = nlohmann::ordered_json;
    EXPECT_EQ(Json::parse(record->second(groups[2])).dump(), Json::parse(groups[2]).dump());
    shown.insert(name);
  });
  for (const auto& [name, unused] : records()) EXPECT_TRUE(shown.contains(name)) << name;
}

TEST(ProtocolDocument, ListsEveryMethod) {
  std::vector<std::vector<std::string>> listed;
  forEachMatch(
      "\\| `(\\w+)\\((\\w*)\\) → (\\w+)` \\| `([\\w:]+)` \\| `?(\\w*)`? ?\\| ([\\w `]+) \\|",
      [&](const auto& groups) { listed.push_back({groups.begin() + 1, groups.end()}); });
  for (auto& columns : listed) std::erase(columns.back(), '`');
  std::vector<std::vector<std::string>> expected;
  for (const Method& method : methods) {
    const bool takesRequest = method.takesRequest();
    expected.push_back({method.name, takesRequest ? "ay" : "", method.result, method.selector,
                        takesRequest ? method.request : "", method.reply});
  }
  EXPECT_EQ(listed, expected);
}

/// The code and description with which a body is refused.
std::pair<std::int64_t, std::string> refusal(const Recode& decode, const std::string& body) {
  try {
    decode(body);
  } catch (const DecodingError& error) {
    return {static_cast<std::int64_t>(error.kind()), error.what()};
  } catch (const GenerationDTOError& error) {
    return {static_cast<std::int64_t>(error.kind()), error.what()};
  } catch (const HelperDTOError& error) {
    return {static_cast<std::int64_t>(error.kind()), error.what()};
  }
  return {0, "accepted"};
}

TEST(ProtocolDocument, EveryRefusedBodyIsRefusedAsToldThere) {
  const std::size_t count = forEachMatch("\\| `(\\w+)` \\| `([^`]+)` \\| (\\d+) \\| `([^`]+)` \\|",
                                         [](const std::vector<std::string>& groups) {
                                           SCOPED_TRACE(groups[2]);
                                           const auto record = records().find(groups[1]);
                                           ASSERT_NE(record, records().end());
                                           const auto [code, description] =
                                               refusal(record->second, groups[2]);
                                           EXPECT_EQ(code, std::stoll(groups[3]));
                                           EXPECT_EQ(description, groups[4]);
                                         });
  EXPECT_GE(count, 10U);
}

}  // namespace
}  // namespace tessaloom
