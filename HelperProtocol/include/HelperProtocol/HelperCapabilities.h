#pragma once

#include <set>
#include <string>

namespace tessaloom {

/// What this helper offers. Both keys are required when read.
struct HelperCapabilities {
  /// On the wire an array whose order has no meaning; duplicates are dropped.
  std::set<std::string> names;
  std::string helperVersion;  ///< The marketing version, at most 32 Unicode scalars.

  friend bool operator==(const HelperCapabilities&, const HelperCapabilities&) = default;
};

}  // namespace tessaloom
