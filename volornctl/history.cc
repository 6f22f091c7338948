#include "volornctl/history.h"

#include <algorithm>
#include <utility>

#include "snapshot/snapshot_keys.h"
#include "volornctl/graph.h"
#include "volornctl/json_text.h"
#include "volornctl/metrics.h"
#include "volornctl/number_option.h"
#include "volornctl/state_choice.h"
#include "volornctl/table.h"

namespace volorn::ctl {
namespace {

using linux_host::StateUnreadable;
using linux_host::StoredSnapshot;

// Between two columns of a table.
constexpr std::size_t kGap = 2;

bool isNamed(std::string_view key, std::string_view name) {
  return key == name || (key.starts_with(snapshot_key::kPrefix) && withoutPrefix(key) == name);
}

std::optional<std::int64_t> valueOf(const StoredSnapshot& snapshot, std::string_view key) {
  const auto metric = std::ranges::find(snapshot.metrics, key, [](const auto& m) { return m.first; });
  return metric == snapshot.metrics.end() ? std::nullopt : std::optional(metric->second);
}

// In the order of the newest snapshot that holds them.
std::vector<std::string> keysOf(const History& history) {
  std::vector<std::string> keys;
  for (auto snapshot = history.rbegin(); snapshot != history.rend(); ++snapshot) {
    for (const auto& [key, value] : snapshot->metrics) {
      if (std::ranges::find(keys, key) == keys.end()) keys.push_back(key);
    }
  }
  return keys;
}

// What stands for a failed reading is left out: it would be the least of all values.
Series seriesOf(const History& history, std::string_view key) {
  Series series;
  for (const StoredSnapshot& snapshot : history) {
    const std::optional<std::int64_t> value = valueOf(snapshot, key);
    series.push_back(value && isKnown(key, *value) ? value : std::nullopt);
  }
  return series;
}

std::string readingOrNumber(std::string_view key, std::int64_t value) {
  const std::string text = reading(key, value);
  return text.empty() ? std::to_string(value) : text;
}

std::string timeText(const StoredSnapshot& snapshot) {
  return rfc3339(snapshot.taken_at).value_or("beyond the calendar");
}

// "11-23"
std::string dayText(const StoredSnapshot& snapshot) {
  const std::optional<std::string> time = rfc3339(snapshot.taken_at);
  return time ? time->substr(5, 5) : "?";
}

Cell heading(std::string text, bool right = false) {
  return {.text = std::move(text), .strong = true, .right = right};
}

std::string fitted(const std::vector<Row>& rows, bool colour, std::size_t max_columns) {
  std::string text;
  for (const std::string& line : tableLines(rows, colour, max_columns)) {
    // A graph may end with days that are missing.
    text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  }
  return text;
}

// One day: a cell for the heading and one for each key.
std::vector<std::string> dayColumn(const StoredSnapshot& snapshot, const std::vector<std::string>& keys) {
  std::vector<std::string> column = {dayText(snapshot)};
  for (const std::string& key : keys) {
    const std::optional<std::int64_t> value = valueOf(snapshot, key);
    column.push_back(value ? readingOrNumber(key, *value) : "");
  }
  return column;
}

std::size_t widthOf(const std::vector<std::string>& column) {
  std::size_t width = 0;
  for (const std::string& text : column) width = std::max(width, escaped(text).size());
  return width;
}

}  // namespace

History readHistory(const std::string& state_directory, std::int64_t limit,
                    const std::optional<std::string>& key) {
  linux_host::StateReader reader(state_directory);
  History history = reader.newestSnapshots(limit);
  if (history.empty()) {
    throw StateUnreadable(StateUnreadable::Reason::kNothingYet,
                          reader.path() + ": no snapshot has been taken yet");
  }
  if (!key) return history;
  for (StoredSnapshot& snapshot : history) {
    std::erase_if(snapshot.metrics, [&](const auto& metric) { return !isNamed(metric.first, *key); });
  }
  std::erase_if(history, [](const StoredSnapshot& snapshot) { return snapshot.metrics.empty(); });
  if (!history.empty()) return history;
  if (std::ranges::none_of(snapshot_key::kAll, [&](auto known) { return isNamed(known, *key); })) {
    throw CLI::ValidationError("--key", "not a key of these snapshots: " + *key);
  }
  throw StateUnreadable(StateUnreadable::Reason::kNothingYet,
                        reader.path() + ": none of these snapshots holds " + *key);
}

std::string historyJson(const History& history) {
  Json snapshots = Json::array();
  for (const StoredSnapshot& snapshot : history) {
    Json metrics = Json::object();
    for (const auto& [key, value] : snapshot.metrics) metrics[key] = value;
    Json& shown = snapshots.emplace_back();
    shown["takenAt"] = jsonTime(snapshot.taken_at);
    shown["metrics"] = std::move(metrics);
  }
  Json document;
  document["schema"] = kJsonSchema;
  document["snapshots"] = std::move(snapshots);
  return jsonLine(document);
}

std::string historyRows(const History& history, bool colour) {
  std::vector<Row> rows = {{heading("Taken at"), heading("Key"), heading("Value", true), heading("Reading")}};
  for (const StoredSnapshot& snapshot : history) {
    for (const auto& [key, value] : snapshot.metrics) {
      rows.push_back({{.text = timeText(snapshot)},
                      {.text = withoutPrefix(key)},
                      {.text = std::to_string(value), .right = true},
                      {.text = reading(key, value)}});
    }
  }
  return table(rows, colour);
}

std::string historyOfKeys(const History& history, bool colour, std::size_t max_columns) {
  const std::vector<std::string> keys = keysOf(history);
  std::vector<std::string> names = {"Key"};
  for (const std::string& key : keys) names.push_back(withoutPrefix(key));
  const std::size_t names_width = widthOf(names) + kGap;
  std::size_t room = max_columns - std::min(max_columns, names_width);
  const std::string title = std::to_string(history.size()) + (history.size() == 1 ? " day" : " days");
  // Half of the room for the days, at most; where that is too little for one, the graph has it all.
  const std::size_t graph_width = std::min(history.size(), std::max(room / 2, title.size()));
  room -= std::min(room, std::max(graph_width, title.size()));
  std::vector<std::vector<std::string>> days;
  for (auto snapshot = history.rbegin(); snapshot != history.rend(); ++snapshot) {
    std::vector<std::string> day = dayColumn(*snapshot, keys);
    const std::size_t width = widthOf(day) + kGap;
    if (width > room) break;
    room -= width;
    days.insert(days.begin(), std::move(day));
  }
  std::vector<Row> rows;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const bool is_heading = i == 0;
    const std::string shown = is_heading ? title : graph(seriesOf(history, keys[i - 1]), graph_width);
    Row& row = rows.emplace_back(
        Row{{.text = names[i], .strong = is_heading}, {.text = shown, .strong = is_heading}});
    for (const auto& day : days) row.push_back({.text = day[i], .strong = is_heading, .right = true});
  }
  return fitted(rows, colour, max_columns);
}

std::string historyOfDays(const History& history, bool colour, std::size_t max_columns) {
  const std::string& key = history.back().metrics.front().first;
  std::vector<Row> rows = {{heading("Taken at"), heading("Value", true), heading("Reading")}};
  std::size_t width = 0;  // of what stands before the bars
  for (const StoredSnapshot& snapshot : history) {
    const std::int64_t value = snapshot.metrics.front().second;
    rows.push_back({{.text = timeText(snapshot)},
                    {.text = std::to_string(value), .right = true},
                    {.text = reading(key, value)}});
  }
  for (const std::string& line : tableLines(rows, false, max_columns)) width = std::max(width, line.size());
  const std::vector<std::string> shown =
      bars(seriesOf(history, key), max_columns - std::min(max_columns, width + kGap));
  rows[0].push_back(heading(withoutPrefix(key)));
  for (std::size_t i = 0; i < shown.size(); ++i) rows[i + 1].push_back({.text = shown[i]});
  return fitted(rows, colour, max_columns);
}

CLI::App* HistoryCommand::addTo(CLI::App& program) {
  CLI::App* command = program.add_subcommand("history", "Show the snapshots of all days");
  command->add_option("--limit", limit_, "The newest so many only")->type_name("N")->check(checkCount);
  command->add_option("--key", key_, "This key only")->type_name("NAME");
  command->add_flag("--json", json_, kJsonHelp);
  return command;
}

void HistoryCommand::run(const Surroundings& surroundings) {
  const History history = readHistory(stateDirectory(surroundings), limit_, key_);
  Output& output = surroundings.output;
  if (json_) {
    output.write(historyJson(history));
  } else if (!output.isTerminal()) {
    output.write(historyRows(history, surroundings.colour));
  } else {
    const std::size_t columns = output.room().columns;
    output.write(key_ ? historyOfDays(history, surroundings.colour, columns)
                      : historyOfKeys(history, surroundings.colour, columns));
  }
}

}  // namespace volorn::ctl
