#pragma once

#include <cerrno>
#include <exception>
#include <new>

namespace tessaloom {

/// The body of a callback that sd-bus calls, which is C and must not see an exception: a negative
/// errno instead, which the library answers to a method call.
template <class Body>
int withoutExceptions(Body body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return -ENOMEM;
  } catch (const std::exception&) {
    return -EIO;
  }
}

}  // namespace tessaloom
