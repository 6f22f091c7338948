#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace volorn::ctl {

// How many columns of a terminal the text takes: 2 for a wide character, 0 for a combining one. Of text that
// is UTF-8 without control characters, as escaped() makes it.
std::size_t columnsOf(std::string_view text);

// As much of the text as fits.
std::string_view beginning(std::string_view text, std::size_t max_columns);

// The text in lines of no more columns than that, broken at blanks where there are any. At least one line.
std::vector<std::string> wrapped(std::string_view text, std::size_t max_columns);

// The text in so many columns, cut or with blanks behind it; `right`: before it.
std::string padded(std::string_view text, std::size_t columns, bool right = false);

}  // namespace volorn::ctl
