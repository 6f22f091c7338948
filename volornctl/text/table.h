#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace volorn::ctl {

// Text that can neither move a terminal's cursor nor be taken for another text: control characters and those
// that turn the direction of writing become \u{9b}, bytes that are no UTF-8 become \xff, and a backslash is
// doubled. The rest stays as it is.
std::string escaped(std::string_view text);

// A cell's text is escaped when it is printed.
struct Cell {
  std::string text;
  bool strong = false;  // bold where there is colour
  bool right = false;   // aligned to the right end of its column
};

using Row = std::vector<Cell>;

// One line a row, columns two blanks apart, no blanks at a line's end.
std::string table(const std::vector<Row>& rows, bool colour);

// The same as lines without their ends, none of which takes more than `max_columns` columns.
std::vector<std::string> tableLines(const std::vector<Row>& rows, bool colour, std::size_t max_columns);

}  // namespace volorn::ctl
