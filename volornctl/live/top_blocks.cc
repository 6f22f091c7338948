#include "volornctl/live/top_blocks.h"

#include <iterator>
#include <limits>
#include <utility>
#include <vector>

#include "volornctl/live/machine_lines.h"
#include "volornctl/text/number_text.h"
#include "volornctl/text/table.h"
#include "volornctl/text/time_text.h"

namespace volorn::ctl {
namespace {

std::vector<Row> machineRows(const Sample& sample) {
  std::vector<Row> rows;
  for (const MachineLine& line : machineLines(sample)) {
    const std::string label = line.label;
    Row& row = rows.emplace_back(Row{{.text = line.is_alarming ? label + "!" : label, .strong = true}});
    for (const std::string& field : line.fields) row.push_back({.text = field});
  }
  return rows;
}

// The texts of cells are escaped by the table, which these have behind them.
std::string plainText(const ProcessFigures& process, Column column, const Date& now, const UserNames& names) {
  if (column == Column::kCommand) return process.command;
  const auto name = names.find(process.uid);
  if (column == Column::kUser && name != names.end()) return name->second;
  return cellText(process, column, now, names);
}

std::vector<Row> processRows(const Sample& sample, const ProcessList& processes, const UserNames& names,
                             std::size_t max_rows) {
  std::vector<Row> rows(1);
  for (const ColumnTraits& column : kColumns) {
    rows[0].push_back({.text = column.heading, .strong = true, .right = !column.is_text});
  }
  for (const ProcessRow& listed : processes) {
    if (rows.size() >= max_rows) break;
    Row& row = rows.emplace_back();
    for (std::size_t i = 0; i < kColumns.size(); ++i) {
      row.push_back({.text = plainText(*listed.process, static_cast<Column>(i), sample.at, names),
                     .right = !kColumns[i].is_text});
    }
  }
  return rows;
}

}  // namespace

std::string momentText(const Sample& sample) {
  std::string text = utcTime(sample.at);
  if (sample.interval_seconds) text += ", over " + decimalText(*sample.interval_seconds, 1) + " s";
  return text;
}

std::string topBlock(const Sample& sample, const ProcessList& processes, const UserNames& names,
                     const std::optional<Room>& room, bool colour) {
  constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
  const std::size_t max_rows = room ? room->rows : kNoLimit;
  const std::size_t max_columns = room ? room->columns : kNoLimit;
  std::vector<std::string> lines = tableLines({{{.text = momentText(sample)}}}, colour, max_columns);
  const auto append = [&](const std::vector<Row>& rows) {
    std::vector<std::string> more = tableLines(rows, colour, max_columns);
    std::move(more.begin(), more.end(), std::back_inserter(lines));
  };
  append(machineRows(sample));
  lines.emplace_back();
  append(processRows(sample, processes, names, max_rows));
  std::string text;
  for (std::size_t i = 0; i < lines.size() && i < max_rows; ++i) text += lines[i] + "\n";
  return text;
}

}  // namespace volorn::ctl
