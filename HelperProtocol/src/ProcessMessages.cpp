#include "HelperProtocol/ProcessMessages.h"

#include <string_view>

#include "HelperProtocol/HelperDTOError.h"
#include "TLFoundation/DisplayString.h"

namespace tessaloom {
namespace {

std::optional<std::string> cleaned(const std::optional<std::string>& text, std::int64_t limit) {
  if (!text) return std::nullopt;
  return DisplayString::singleLine(*text, limit);
}

}  // namespace

ProcessID::ProcessID(std::int32_t value) : value_(value) {
  if (value <= 0) throw HelperDTOError::invalidPID(value);
}

ProcessSample::ProcessSample(std::int32_t pid, std::int32_t parentPID,
                             const std::optional<std::string>& tty, Instant startedAt,
                             std::int64_t elapsedSeconds, std::int64_t residentBytes,
                             std::string_view command)
    : pid_(pid),
      parentPID_(parentPID),
      tty_(cleaned(tty, ttyLimit)),
      startedAt_(startedAt),
      elapsedSeconds_(elapsedSeconds),
      residentBytes_(residentBytes),
      command_(DisplayString::singleLine(command, commandLimit)) {}

PortSample::PortSample(std::int64_t port, std::string_view transport, std::int32_t pid,
                       std::string_view processName, std::string_view address)
    : port_(port),
      transport_(DisplayString::singleLine(transport, transportLimit)),
      pid_(pid),
      processName_(DisplayString::singleLine(processName, processNameLimit)),
      address_(DisplayString::singleLine(address, addressLimit)) {}

std::string PortSample::id() const {
  return transport_ + '/' + address_ + '/' + std::to_string(port_) + '/' + std::to_string(pid_);
}

}  // namespace tessaloom
