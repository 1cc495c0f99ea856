#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <vector>

namespace tessaloom {

template <class Field>
std::size_t hashField(const Field& field) noexcept {
  return std::hash<Field>{}(field);
}

template <class Element>
std::size_t hashField(const std::vector<Element>& elements) noexcept;

/// One hash over the fields of a record, in order.
template <class... Fields>
std::size_t hashFields(const Fields&... fields) noexcept {
  std::size_t hash = 0;
  // The mixing step of boost::hash_combine, widened to 64 bits.
  ((hash ^= hashField(fields) + 0x9e3779b97f4a7c15U + (hash << 6) + (hash >> 2)), ...);
  return hash;
}

template <class Element>
std::size_t hashField(const std::vector<Element>& elements) noexcept {
  std::size_t hash = elements.size();
  for (const Element& element : elements) hash = hashFields(hash, element);
  return hash;
}

/// A record of this project that can be hashed: its `hash()` combines the fields that its
/// comparison compares.
template <class Record>
concept HashableRecord = requires(const Record& record) {
  { record.hash() } noexcept -> std::same_as<std::size_t>;
};

}  // namespace tessaloom

template <tessaloom::HashableRecord Record>
// NOLINTNEXTLINE(cert-dcl58-cpp): only for records of this project.
struct std::hash<Record> {
  std::size_t operator()(const Record& record) const noexcept { return record.hash(); }
};
