#pragma once

#include <set>
#include <string>

namespace tessaloom {

/// What this helper offers. Both keys are required when read.
struct HelperCapabilities {
  std::set<std::string>
      names;  ///< On the wire an array whose order means nothing; duplicates collapse.
  std::string helperVersion;  ///< The marketing version, at most 32 Unicode scalars.

  friend bool operator==(const HelperCapabilities&, const HelperCapabilities&) = default;
};

}  // namespace tessaloom
