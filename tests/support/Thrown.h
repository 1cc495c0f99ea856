#pragma once

#include <optional>

namespace tessaloom {

/// The error of this type that `act` throws, if it does.
template <class Error, class Act>
std::optional<Error> thrownBy(Act act) {
  try {
    act();
    return std::nullopt;
  } catch (const Error& error) {
    return error;
  }
}

}  // namespace tessaloom
