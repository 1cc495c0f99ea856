#pragma once

namespace tessaloom {

/// Whether the executable on disk is still the one that runs. Both keys are required when read.
class HelperFreshness {
 public:
  /// Only an outdated helper exits, so `willExit` becomes `isOutdated && willExit`.
  HelperFreshness(bool isOutdated, bool willExit)
      : isOutdated_(isOutdated), willExit_(isOutdated && willExit) {}

  /// The values as they were in a message, `willExit` unchanged.
  static HelperFreshness asRead(bool isOutdated, bool willExit) {
    HelperFreshness freshness(isOutdated, willExit);
    freshness.willExit_ = willExit;
    return freshness;
  }

  bool isOutdated() const { return isOutdated_; }
  bool willExit() const { return willExit_; }

  friend bool operator==(const HelperFreshness&, const HelperFreshness&) = default;

 private:
  bool isOutdated_;
  bool willExit_;
};

}  // namespace tessaloom
