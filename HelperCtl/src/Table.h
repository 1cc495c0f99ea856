#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tessaloom {

/// Rows under column titles, aligned by the width that text has on a terminal.
class Table {
 public:
  enum class Alignment : std::uint8_t { left, right };

  struct Column {
    std::string_view title;
    Alignment alignment;
    bool shrinks = false;  ///< Its cells may be cut, with an ellipsis, to make the table fit.
  };

  /// The most useful columns first: where there is no room for all, the last ones are left out.
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  /// One cell for each column; safe for a terminal.
  void addRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }

  /// The lines of the table, the titles first, none wider than `width` unless the first column
  /// alone is. No line ends in a space. A cell that was cut ends in `ellipsis`, one column wide.
  std::vector<std::string> lines(std::size_t width, std::string_view ellipsis) const;

 private:
  static constexpr std::size_t gap = 2;        ///< Spaces between columns.
  static constexpr std::size_t narrowest = 8;  ///< What a cell is cut to at most.

  std::vector<std::size_t> columnWidths(std::size_t width) const;
  std::string line(const std::vector<std::string>& cells, const std::vector<std::size_t>& widths,
                   std::string_view ellipsis) const;

  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace tessaloom
