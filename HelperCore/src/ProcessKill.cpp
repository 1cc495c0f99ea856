#include "HelperCore/ProcessKill.h"

#include "TLFoundation/ErrnoText.h"

namespace tessaloom {

namespace {

KillResult refusal() {
  return {.succeeded = false,
          .message =
              "Not authorized: process was not in a recent listing, or has since changed "
              "identity (B3)."};
}

}  // namespace

KillResult killProcess(const KillRequest& request, Kernel& kernel,
                       const ProvenanceCache& provenance) {
  const std::int32_t pid = request.pid.value();
  auto process = kernel.openProcess(pid);
  auto current = process->startTime();
  if (!current) return refusal();
  const Instant now = kernel.wallClockTime();
  if (!provenance.isAuthorized(pid, current->startSec, current->startUSec, now)) return refusal();
  const int error = process->signal(static_cast<std::int32_t>(request.signal));
  if (error == 0) return {.succeeded = true};
  return {.succeeded = false, .message = errnoText(error)};
}

}  // namespace tessaloom
