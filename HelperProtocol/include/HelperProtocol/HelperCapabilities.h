#pragma once

#include <set>
#include <string>

namespace tessaloom {

/// What this helper offers. Both keys are required when read.
struct HelperCapabilities {
  /// On the wire an array whose order has no meaning; duplicates are dropped.
  std::set<std::string> names;
  /// The marketing version; as the helper sends it at most 32 Unicode scalars, which is not checked
  /// when read.
  std::string helperVersion;

  friend bool operator==(const HelperCapabilities&, const HelperCapabilities&) = default;
};

}  // namespace tessaloom
