#pragma once

#include <expected>
#include <functional>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>

#include "Client.h"
#include "Command.h"
#include "HelperProtocol/GenerationEnums.h"
#include "HelperProtocol/ProcessMessages.h"
#include "HelperProtocol/UUID.h"

namespace tessaloom {

/// The exit status for a reply's record: `refused` for a KillResult that did not succeed, otherwise
/// `done`.
template <class Record>
ExitStatus statusOf(const Record& record) {
  if constexpr (std::is_same_v<Record, KillResult>) {
    if (!record.succeeded) return ExitStatus::refused;
  }
  return ExitStatus::done;
}

/// Shows a reply's record, or prints the body with --json. A reply that does not decode is an error
/// either way, and so is a record that is not about what was asked for.
template <class Record, class Show>
ExitStatus showReply(
    const CallReply& reply, const Arguments& arguments, Show show,
    const std::function<bool(const Record&)>& isAbout = [](const Record&) { return true; }) {
  const bool json = arguments.has(jsonOption.name);
  if (!reply) return reportError(reply.error(), json);
  const auto record = decodeReply<Record>(*reply);
  if (record && !isAbout(*record)) return reportUnreadableReply("it answers another request", json);
  if (json) Console::printJSON(*reply);
  if (!record) return reportUnreadableReply(record.error(), json);
  if (!json) show(*record);
  return statusOf(*record);
}

/// The engine of that name.
std::expected<GenerationEngineID, UsageError> readEngine(std::string_view name);
/// The UUID that `text` spells.
std::expected<UUID, UsageError> readUUID(std::string_view text);
/// What is thrown for standard input that cannot be read, with the errno.
std::system_error inputError(int error);
/// All of standard input. The error, if it is longer than any body may be, names `limit`. Throws
/// std::system_error if it cannot be read.
std::expected<std::string, UsageError> readStandardInput(std::string_view limit);

}  // namespace tessaloom
