#include "DoctorChecks.h"

namespace tessaloom {

std::vector<Check> checkWayToHelper() {
  // There is nothing to ask before the first call: whether launchd has the helper's agent, and
  // whether the helper accepts this program, shows only in how that call ends.
  return {};
}

std::string adviceForSilence() {
  return "End it in Activity Monitor, and the next call starts a new one.";
}

}  // namespace tessaloom
