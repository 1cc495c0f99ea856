#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "HelperProtocol/GenerationEnums.h"
#include "HelperProtocol/UUID.h"
#include "TLFoundation/HashFields.h"

namespace tessaloom {

/// The structured answer of the shape `itemFields`.
class GeneratedFields {
 public:
  static constexpr std::int64_t maximumTags = 12;
  static constexpr std::int64_t maximumGlobs = 24;
  static constexpr std::int64_t itemDescriptionLimit = 2'000;  ///< Unicode scalars.
  static constexpr std::int64_t tagLimit = 64;                 ///< Unicode scalars.
  static constexpr std::int64_t globLimit = 256;               ///< Unicode scalars.

  /// Throws GenerationDTOError::tooManyItems, for the tags before the globs. The texts are cleaned
  /// to one line and cut to their limits, never refused; entries are not dropped, changed in case
  /// or de-duplicated.
  GeneratedFields(std::string_view itemDescription, std::vector<std::string> tags,
                  std::vector<std::string> globs, bool alwaysApply);

  /// Throws GenerationDTOError::tooManyItems, for the tags before the globs.
  static void checkCounts(std::size_t tags, std::size_t globs);

  const std::string& itemDescription() const { return itemDescription_; }
  const std::vector<std::string>& tags() const { return tags_; }
  const std::vector<std::string>& globs() const { return globs_; }
  bool alwaysApply() const { return alwaysApply_; }

  friend bool operator==(const GeneratedFields&, const GeneratedFields&) = default;
  std::size_t hash() const noexcept {
    return hashFields(itemDescription_, tags_, globs_, alwaysApply_);
  }

 private:
  std::string itemDescription_;
  std::vector<std::string> tags_;
  std::vector<std::string> globs_;
  bool alwaysApply_;
};

/// What a generation used, as the engine counted it; a count that it did not report is 0.
struct GenerationTokens {
  std::int64_t input = 0;
  std::int64_t output = 0;
  std::int64_t cachedInput = 0;

  friend bool operator==(const GenerationTokens&, const GenerationTokens&) = default;
  std::size_t hash() const noexcept { return hashFields(input, output, cachedInput); }
};

/// A generation that succeeded.
struct GenerationResult {
  UUID requestID;
  GenerationEngineID engine;
  std::string text;  ///< For `itemFields` the answer's JSON text.
  /// Present for `itemFields`; the key is left out when absent.
  std::optional<GeneratedFields> fields;
  /// Absent, and the key left out, when the engine reported no usage.
  std::optional<GenerationTokens> tokens;
  std::int64_t durationMilliseconds;  ///< Wall time of the run.

  friend bool operator==(const GenerationResult&, const GenerationResult&) = default;
  std::size_t hash() const noexcept {
    return hashFields(requestID, engine, text, fields, tokens, durationMilliseconds);
  }
};

}  // namespace tessaloom
