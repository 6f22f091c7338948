#include "volornctl/kept/history_text.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "volornctl/kept/key_meaning.h"
#include "volornctl/text/day_axis.h"
#include "volornctl/text/json_text.h"
#include "volornctl/text/table.h"

namespace volorn::ctl {
namespace {

using linux_host::StoredSnapshot;

// Between two columns of a table.
constexpr std::size_t kGap = 2;

std::string timeText(const StoredSnapshot& snapshot, const HistoryView& view) {
  const auto text = view.time_zone ? rfc3339(snapshot.taken_at, view.time_zone) : rfc3339(snapshot.taken_at);
  return text.value_or("beyond the calendar");
}

Cell heading(std::string text, bool right = false) {
  return {.text = std::move(text), .strong = true, .right = right};
}

std::string fitted(const std::vector<Row>& rows, const HistoryView& view) {
  std::string text;
  for (const std::string& line : tableLines(rows, view.colour, view.max_columns)) {
    // A graph may end with days that are missing.
    text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  }
  return text;
}

std::string figureLines(const History& history, const Days& days, const std::vector<KeyPoints>& keys,
                        const HistoryView& view) {
  std::vector<Row> rows;
  for (const auto& [name, text] : figuresOf(history, days, keys)) {
    rows.push_back({heading(name), {.text = text}});
  }
  return "\n" + fitted(rows, view);
}

std::size_t widthOf(const std::vector<std::string>& column) {
  std::size_t width = 0;
  for (const std::string& text : column) width = std::max(width, escaped(text).size());
  return width;
}

// A mean for each of so many columns.
Series columnsOf(const std::vector<Point>& points, const Days& days, std::size_t columns) {
  std::vector<std::pair<double, int>> sums(columns);
  for (const Point& point : points) {
    auto& [sum, count] = sums[static_cast<std::size_t>(point.day - days.first) * columns / days.count()];
    sum += static_cast<double>(point.value);
    ++count;
  }
  Series series;
  for (const auto& [sum, count] : sums) {
    series.push_back(count == 0 ? std::nullopt : std::optional(sum / count));
  }
  return series;
}

// What stands beside the graphs: each a heading and a text for every key.
std::vector<std::vector<std::string>> spreadColumns(const std::vector<KeyPoints>& keys, const Days& days) {
  std::vector<std::vector<std::string>> columns = {{"Least"}, {"Mean"}, {"Most"}, {"Newest"}};
  for (const auto& [key, points] : keys) {
    const std::optional<Spread> spread = spreadOf(points);
    columns[0].push_back(spread ? figureText(key, spread->least) : "");
    columns[1].push_back(spread ? meanText(key, spread->mean) : "");
    columns[2].push_back(spread ? figureText(key, spread->most) : "");
    const bool has_newest = spread && points.back().day == days.last;
    columns[3].push_back(has_newest ? figureText(key, points.back().value) : "");
  }
  return columns;
}

std::string csvField(std::string text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  for (std::size_t at = 0; (at = text.find('"', at)) != std::string::npos; at += 2) text.insert(at, 1, '"');
  return '"' + text + '"';
}

}  // namespace

std::string historyJson(const History& history) {
  Json snapshots = Json::array();
  for (const StoredSnapshot& snapshot : history) {
    Json metrics = Json::object();
    for (const auto& [key, value] : snapshot.metrics) metrics[key] = value;
    Json& shown = snapshots.emplace_back();
    shown["takenAt"] = jsonTime(snapshot.taken_at);
    shown["metrics"] = std::move(metrics);
    shown["unknown"] = snapshot.unknown;
  }
  Json document;
  document["schema"] = kJsonSchema;
  document["snapshots"] = std::move(snapshots);
  return jsonLine(document);
}

std::string historyCsv(const History& history, const HistoryView& view) {
  std::unordered_map<std::string_view, std::size_t> places;
  std::string text = "takenAt";
  for (auto snapshot = history.rbegin(); snapshot != history.rend(); ++snapshot) {
    for (const auto& [key, value] : snapshot->metrics) {
      if (places.emplace(key, places.size()).second) text += "," + csvField(escaped(withoutPrefix(key)));
    }
  }
  for (const StoredSnapshot& snapshot : history) {
    std::vector<std::string> fields(places.size());
    for (const auto& [key, value] : snapshot.metrics) {
      if (snapshot.isKnown(key)) fields[places.at(key)] = std::to_string(value);
    }
    text += "\n" + timeText(snapshot, view);
    for (const std::string& field : fields) text += "," + field;
  }
  return text + "\n";
}

std::string historyRows(const History& history, const HistoryView& view) {
  std::vector<Row> rows = {{heading("Taken at"), heading("Key"), heading("Value", true), heading("Reading")}};
  for (const StoredSnapshot& snapshot : history) {
    for (const auto& [key, value] : snapshot.metrics) {
      addValue(rows.emplace_back(Row{{.text = timeText(snapshot, view)}, {.text = withoutPrefix(key)}}),
               snapshot, key, value);
    }
  }
  return table(rows, view.colour);
}

bool holdsOneKey(const History& history) {
  const std::string& key = history.back().metrics.empty() ? "" : history.back().metrics.front().first;
  return std::ranges::all_of(history, [&](const StoredSnapshot& snapshot) {
    return snapshot.metrics.size() == 1 && snapshot.metrics.front().first == key;
  });
}

std::string historyOfKeys(const History& history, const HistoryView& view) {
  const std::optional<Days> days = daysOf(history, view.now);
  // Without a day for the axis there is nothing but rows.
  if (!days) return historyRows(history, view);
  const std::vector<KeyPoints> keys = pointsOf(history, *days);
  std::vector<std::string> names = {"Key"};
  constexpr std::size_t kLongestName = 40;  // which leaves the graphs of all keys their room
  for (const KeyPoints& key : keys) names.push_back(withoutPrefix(key.key).substr(0, kLongestName));
  const std::size_t names_width = widthOf(names) + kGap;
  std::size_t room = view.max_columns - std::min(view.max_columns, names_width);
  // A third of the room for the graph, at least, and what a day's label needs.
  constexpr std::size_t kLabelWidth = 10;
  const std::size_t graph_width = std::max(std::min(days->count(), room / 3), kLabelWidth);
  std::vector<std::vector<std::string>> beside;
  for (std::vector<std::string>& column : spreadColumns(keys, *days)) {
    const std::size_t width = widthOf(column) + kGap;
    if (graph_width + width > room) break;
    room -= width;
    beside.push_back(std::move(column));
  }
  const std::size_t columns = std::min(days->count(), room);
  std::vector<Row> rows;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const bool is_heading = i == 0;
    std::string shown = is_heading ? axisLine(days->first, days->last, columns) : "";
    if (!is_heading && columns > 0) {
      const auto& [key, points] = keys[i - 1];
      const Spread spread = spreadOf(points).value_or(Spread{});
      shown = graph(columnsOf(points, *days, columns), axisOf(key, spread));
    }
    Row& row = rows.emplace_back(
        Row{{.text = names[i], .strong = is_heading}, {.text = shown, .strong = is_heading}});
    for (const auto& column : beside) {
      row.push_back({.text = column[i], .strong = is_heading, .right = true});
    }
  }
  return fitted(rows, view) + figureLines(history, *days, keys, view);
}

std::string historyOfDays(const History& history, const HistoryView& view) {
  const std::string& key = history.back().metrics.front().first;
  std::vector<Row> rows = {{heading("Taken at"), heading("Value", true), heading("Reading")}};
  Series series = {std::nullopt};
  std::optional<std::int64_t> day_before;
  for (const StoredSnapshot& snapshot : history) {
    const std::optional<std::int64_t> day = daysSince1970(snapshot.taken_at);
    const std::int64_t between = day && day_before ? *day - *day_before - 1 : 0;
    if (between > 0) {
      rows.push_back({{.text = std::to_string(between) + (between == 1 ? " day without" : " days without")}});
      series.emplace_back();
    }
    day_before = day;
    addValue(rows.emplace_back(Row{{.text = timeText(snapshot, view)}}), snapshot, key,
             snapshot.metrics.front().second);
    series.push_back(knownValue(snapshot, key));
  }
  Spread spread;
  const std::optional<Days> days = daysOf(history, view.now);
  const std::vector<KeyPoints> keys = days ? pointsOf(history, *days) : std::vector<KeyPoints>();
  if (!keys.empty()) spread = spreadOf(keys.front().points).value_or(spread);
  std::size_t width = 0;  // of what stands before the bars
  for (const std::string& line : tableLines(rows, false, view.max_columns))
    width = std::max(width, line.size());
  const std::vector<std::string> shown =
      bars(series, axisOf(key, spread), view.max_columns - std::min(view.max_columns, width + kGap));
  rows[0].push_back(heading(withoutPrefix(key)));
  for (std::size_t i = 1; i < rows.size(); ++i) {
    rows[i].resize(3);
    rows[i].push_back({.text = shown[i]});
  }
  const std::string text = fitted(rows, view);
  if (keys.empty() || keys.front().points.empty()) return text;
  const auto row = [](const char* title, std::string figure) {
    return std::vector<Cell>{heading(title), Cell{.text = std::move(figure)}};
  };
  const std::string figures =
      fitted({row("Least", figureText(key, spread.least)), row("Mean", meanText(key, spread.mean)),
              row("Most", figureText(key, spread.most))},
             view);
  return text + "\n" + figures + figureLines(history, *days, keys, view);
}

}  // namespace volorn::ctl
