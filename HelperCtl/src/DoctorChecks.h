#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "HelperCore/CurrentUser.h"
#include "Transport.h"

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

/// Checks what a call needs on this platform: whether there is a bus (or its like), whether it can
/// start the helper, and which process is the helper. Ends with the first bad finding.
std::vector<Check> checkWayToHelper();

/// Each engine, as the helper sees it and, where it cannot be asked (null), as this program does.
/// One engine that can be used is enough: then what is wrong with another is only a notice.
std::vector<Check> checkEngines(Transport* transport, const std::optional<CurrentUser>& user);

/// A call that was answered with an error, and a reply that is not the expected record.
Check failedCall(const std::string& subject, const CallError& error);
Check unreadableReply(const std::string& subject);

/// What to do about a helper that does not answer.
std::string adviceForSilence();

}  // namespace tessaloom
