#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace volorn::ctl {

// Text that stays text between tags and within quotes, and that escaped() has made harmless before.
std::string htmlText(std::string_view text);

// A table of two columns without headings: what each row is called, and what is told of it.
std::string htmlRows(const std::vector<std::pair<std::string, std::string>>& rows);

}  // namespace volorn::ctl
