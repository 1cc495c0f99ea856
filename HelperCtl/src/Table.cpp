#include "Table.h"

#include <algorithm>
#include <numeric>

#include "TLFoundation/DisplayWidth.h"

namespace tessaloom {
namespace {

std::string cut(const std::string& text, std::size_t width, std::string_view ellipsis) {
  if (displayWidth(text) <= width) return text;
  return std::string(prefixOfWidth(text, width - 1)).append(ellipsis);
}

}  // namespace

std::vector<std::string> Table::lines(std::size_t width, std::string_view ellipsis) const {
  const std::vector<std::size_t> widths = columnWidths(width);
  std::vector<std::string> titles;
  titles.reserve(columns_.size());
  for (const Column& column : columns_) titles.emplace_back(column.title);
  std::vector<std::string> lines{line(titles, widths, ellipsis)};
  for (const auto& row : rows_) lines.push_back(line(row, widths, ellipsis));
  return lines;
}

// The widths of the columns that fit, which are as many of the first ones as possible.
std::vector<std::size_t> Table::columnWidths(std::size_t width) const {
  std::vector<std::size_t> natural;
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    natural.push_back(displayWidth(columns_[i].title));
    for (const auto& row : rows_) natural[i] = std::max(natural[i], displayWidth(row[i]));
  }
  std::vector<std::size_t> widths;
  for (std::size_t count = columns_.size(); count > 0; --count) {
    widths.assign(natural.begin(), natural.begin() + static_cast<std::ptrdiff_t>(count));
    std::size_t total = std::accumulate(widths.begin(), widths.end(), gap * (count - 1));
    while (total > width) {
      // The widest column that may shrink gives up a column of the terminal at a time.
      std::size_t* widest = nullptr;
      for (std::size_t i = 0; i < count; ++i) {
        if (!columns_[i].shrinks || widths[i] <= narrowest) continue;
        if (widest == nullptr || widths[i] > *widest) widest = &widths[i];
      }
      if (widest == nullptr) break;
      --*widest;
      --total;
    }
    if (total <= width) break;
  }
  return widths;
}

std::string Table::line(const std::vector<std::string>& cells,
                        const std::vector<std::size_t>& widths, std::string_view ellipsis) const {
  std::string text;
  for (std::size_t i = 0; i < widths.size(); ++i) {
    if (i > 0) text.append(gap, ' ');
    const std::string cell = cut(cells[i], widths[i], ellipsis);
    const std::string padding(widths[i] - displayWidth(cell), ' ');
    text += columns_[i].alignment == Alignment::right ? padding + cell : cell + padding;
  }
  text.erase(text.find_last_not_of(' ') + 1);
  return text;
}

}  // namespace tessaloom
