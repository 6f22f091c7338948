#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace volorn::ctl {

// Values side by side, those that are missing among them.
using Series = std::vector<std::optional<std::int64_t>>;

// A block for each value, from the lowest for the least of them to a full one for the greatest, and a blank
// for each that is missing; nothing where all are. Never more than `max_columns` characters: neighbours then
// share one that shows their mean.
std::string graph(const Series& series, std::size_t max_columns);

// A bar for each value, in eighths of a character, up to `max_columns` characters for the greatest of them.
// It begins at 0, or at the least of them where that is below 0.
std::vector<std::string> bars(const Series& series, std::size_t max_columns);

}  // namespace volorn::ctl
