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

/// The POSIX numbers, spelled out: they are also what goes over the wire.
std::int32_t signalNumber(Signal signal) {
  switch (signal) {
    case Signal::interrupt:
      return 2;
    case Signal::kill:
      return 9;
    case Signal::terminate:
      break;
  }
  return 15;
}

}  // namespace

KillResult killProcess(const KillRequest& request, Kernel& kernel,
                       const ProvenanceCache& provenance, const WallClock& clock) {
  const std::int32_t pid = request.pid.value();
  auto process = kernel.holdProcess(pid);
  auto current = process->startTime();
  if (!current) return refusal();
  if (!provenance.isAuthorized(pid, current->startSec, current->startUSec, clock())) {
    return refusal();
  }
  const int error = process->signal(signalNumber(request.signal));
  if (error == 0) return {.succeeded = true};
  return {.succeeded = false, .message = errnoText(error)};
}

}  // namespace tessaloom
