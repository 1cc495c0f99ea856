#include "CanonicalForm.h"

#include <algorithm>
#include <array>
#include <map>

#include <utf8proc.h>

#include "UTF8.h"

namespace tessaloom {
namespace {

utf8proc_propval_t combiningClass(char32_t scalar) {
  return utf8proc_get_property(static_cast<utf8proc_int32_t>(scalar))->combining_class;
}

std::u32string decomposed(std::string_view text) {
  std::u32string scalars;
  std::array<utf8proc_int32_t, 8> parts{};  // no canonical decomposition is longer than 4
  for (std::size_t position = 0; position < text.size();) {
    const auto next = UTF8::decode(text, position);
    int boundClass = UTF8PROC_BOUNDCLASS_START;
    const auto count = utf8proc_decompose_char(
        static_cast<utf8proc_int32_t>(next.scalar), parts.data(),
        static_cast<utf8proc_ssize_t>(parts.size()), UTF8PROC_DECOMPOSE, &boundClass);
    scalars.append(parts.begin(), parts.begin() + std::max<utf8proc_ssize_t>(count, 0));
    position += next.length;
  }
  return scalars;
}

/// The Canonical Ordering Algorithm (Unicode 15, section 3.11): each run of marks in the order of
/// their classes, otherwise in the order they are in. The library's own is quadratic in the length
/// of a run.
void orderMarks(std::u32string& scalars) {
  const auto isMark = [](char32_t scalar) { return combiningClass(scalar) != 0; };
  for (auto begin = scalars.begin(); begin != scalars.end();) {
    begin = std::find_if(begin, scalars.end(), isMark);
    const auto end = std::find_if_not(begin, scalars.end(), isMark);
    if (!std::ranges::is_sorted(begin, end, {}, combiningClass)) {
      std::map<utf8proc_propval_t, std::u32string> byClass;
      std::for_each(begin, end, [&](char32_t mark) { byClass[combiningClass(mark)] += mark; });
      auto next = begin;
      for (const auto& [_, marks] : byClass) next = std::ranges::copy(marks, next).out;
    }
    begin = end;
  }
}

}  // namespace

std::string canonicalForm(std::string_view text) {
  if (UTF8::endOfASCII(text, 0) == text.size()) return std::string(text);
  auto scalars = decomposed(text);
  orderMarks(scalars);
  std::string form;
  form.reserve(text.size());
  for (const char32_t scalar : scalars) UTF8::append(form, scalar);
  return form;
}

}  // namespace tessaloom
