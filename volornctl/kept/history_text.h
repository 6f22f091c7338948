#pragma once

#include <cstddef>
#include <string>

#include "volornctl/kept/figures.h"
#include "volornctl/text/time_text.h"

namespace volorn::ctl {

// How a history is shown.
struct HistoryView {
  Date now;
  TimeZone time_zone;  // of the times; none for UTC
  bool colour = false;
  std::size_t max_columns = 0;  // of a terminal
};

std::string historyJson(const History& history);

// A line for each snapshot, a column for each key, the numbers as they are stored; nothing for what was not
// known.
std::string historyCsv(const History& history, const HistoryView& view);

// A row for each value.
std::string historyRows(const History& history, const HistoryView& view);

bool holdsOneKey(const History& history);

// For a terminal: a row for each key, with a graph over the days and as many of its least, mean, greatest and
// newest reading as there is room for; below it what follows from them.
std::string historyOfKeys(const History& history, const HistoryView& view);

// For a terminal: a row for each snapshot of one key, with a bar.
std::string historyOfDays(const History& history, const HistoryView& view);

}  // namespace volorn::ctl
