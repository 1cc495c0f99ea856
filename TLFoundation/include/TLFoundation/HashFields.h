#pragma once

#include <cstddef>
#include <functional>

namespace tessaloom {

/// One hash over the fields of a record, in order.
template <class... Fields>
std::size_t hashFields(const Fields&... fields) noexcept {
  std::size_t hash = 0;
  // The mixing step of boost::hash_combine, widened to 64 bits.
  ((hash ^= std::hash<Fields>{}(fields) + 0x9e3779b97f4a7c15U + (hash << 6) + (hash >> 2)), ...);
  return hash;
}

}  // namespace tessaloom
