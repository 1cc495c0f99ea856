#pragma once

#include <string>
#include <string_view>

namespace tessaloom {

/// The canonical decomposition (NFD), the same bytes for canonically equivalent texts. An
/// ill-formed part becomes U+FFFD.
std::string canonicalForm(std::string_view text);

}  // namespace tessaloom
