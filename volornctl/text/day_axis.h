#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace volorn::ctl {

// A day of an axis of UTC days, counted from 1970, and what it is labelled with.
struct DayTick {
  std::int64_t day = 0;
  std::string label;
};

// Ticks from `first_day` to `last_day`, at the beginnings of years, months or weeks, or at days, whatever is
// the finest of which there are no more than `max_count`. Each label has the year where it changes: "2026",
// "Nov", "11-23".
std::vector<DayTick> dayTicks(std::int64_t first_day, std::int64_t last_day, std::size_t max_count);

// Their labels over a graph of so many columns, each above its day; what would touch its neighbour is left
// out.
std::string axisLine(std::int64_t first_day, std::int64_t last_day, std::size_t columns);

}  // namespace volorn::ctl
