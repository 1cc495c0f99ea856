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

/// The groups of every match in the document.
std::vector<std::vector<std::string>> matches(const char* pattern) {
  std::ostringstream text;
  text << std::ifstream(TESSALOOM_DOCS "/protocol.md").rdbuf();
  const std::string document = text.str();
  const std::regex expression(pattern);
  std::vector<std::vector<std::string>> found;
  for (std::sregex_iterator match(document.begin(), document.end(), expression), end; match != end;
       ++match) {
    found.emplace_back(match->begin(), match->end());
  }
  return found;
}

TEST(ProtocolDocument, EveryExampleIsTheRecordThatItShows) {
  std::set<std::string> shown;
  for (const auto& groups : matches("```json (\\S+)\n([^`]+)```")) {
    const std::string& name = groups[1];
    ASSERT_TRUE(records().contains(name)) << name;
    // Written again it is the same, keys in the same order: the examples lack nothing and hold
    // nothing that is ignored.
    using Json = nlohmann::ordered_json;
    EXPECT_EQ(Json::parse(records().at(name)(groups[2])).dump(), Json::parse(groups[2]).dump());
    shown.insert(name);
  }
  EXPECT_EQ(shown.size(), records().size());
}

TEST(ProtocolDocument, ListsEveryMethod) {
  auto listed = matches(
      "\\| `(\\w+)\\((\\w*)\\) → (\\w+)` \\| `([\\w:]+)` \\| `?(\\w*)`? ?\\| ([\\w `]+) \\|");
  ASSERT_EQ(listed.size(), methods.size());
  for (std::size_t row = 0; row < listed.size(); ++row) {
    const Method& method = methods[row];
    const std::string argument = method.takesRequest() ? "ay" : "";
    std::erase(listed[row].back(), '`');
    listed[row].erase(listed[row].begin());
    EXPECT_EQ(listed[row], (std::vector<std::string>{
                               method.name, argument, method.result, method.selector,
                               method.takesRequest() ? method.request : "", method.reply}));
  }
}

template <class Error>
void expectRefusal(const Error& error, const std::vector<std::string>& groups) {
  EXPECT_EQ(std::to_string(static_cast<std::int64_t>(error.kind())), groups[3]) << groups[2];
  EXPECT_EQ(error.what(), groups[4]) << groups[2];
}

TEST(ProtocolDocument, EveryRefusedBodyIsRefusedAsToldThere) {
  const auto rows = matches("\\| `(\\w+)` \\| `([^`]+)` \\| (\\d+) \\| `([^`]+)` \\|");
  EXPECT_GE(rows.size(), 10U);
  for (const auto& groups : rows) {
    try {
      ADD_FAILURE() << groups[2] << " is accepted: " << records().at(groups[1])(groups[2]);
    } catch (const DecodingError& error) {
      expectRefusal(error, groups);
    } catch (const GenerationDTOError& error) {
      expectRefusal(error, groups);
    } catch (const HelperDTOError& error) {
      expectRefusal(error, groups);
    }
  }
}

}  // namespace
}  // namespace tessaloom
