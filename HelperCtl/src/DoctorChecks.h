#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tessaloom {

/// One finding of `doctor`.
struct Check {
  enum class Outcome : std::uint8_t {
    good,
    notice,  ///< Worth knowing, but nothing stops because of it.
    bad,
  };

  Outcome outcome;
  std::string subject;  ///< As in "session bus".
  std::string finding;  ///< In plain words; one line, safe for a terminal.
  /// What to do about it; may be empty.
  std::string remedy = {};  // NOLINT(readability-redundant-member-init): may be left out.
};

/// The way to the helper on this platform: whether there is a bus (or its like), whether it knows
/// the helper, and which process is the helper. Ends with the first bad finding.
std::vector<Check> checkWayToHelper();

/// What to do about a helper that does not answer.
std::string adviceForSilence();

}  // namespace tessaloom
