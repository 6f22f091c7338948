#include "volornctl/live/process_page.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "volornctl/text/columns.h"
#include "volornctl/text/graph.h"
#include "volornctl/text/number_text.h"
#include "volornctl/text/table.h"
#include "volornctl/text/time_text.h"

namespace volorn::ctl {
namespace {

constexpr std::size_t kMostPast = 1000;  // samples: wider than screens are
constexpr std::size_t kLabelColumns = 17;
constexpr std::size_t kPairColumns = 40;

std::string size(std::uint64_t bytes) {
  return shortSizeText(static_cast<double>(bytes));
}

void addTable(std::vector<FrameLine>& lines, const std::vector<Row>& rows) {
  lines.push_back({});
  bool is_heading = true;
  for (std::string& line : tableLines(rows, false, 1000)) {
    lines.push_back({{.text = std::move(line), .style = is_heading ? Style::kHeading : Style::kPlain}});
    is_heading = false;
  }
}

Cell number(std::string text) {
  return {.text = std::move(text), .right = true};
}

const char* threadStateName(char state) {
  switch (state) {
    case 'R':
      return "running";
    case 'D':
      return "blocked";
    case 'S':
      return "sleeping";
    case 'I':
      return "idle";
    case 'T':
    case 't':
      return "stopped";
    case 'Z':
    case 'X':
      return "halted";
    default:
      return "unknown";
  }
}

using Figures = std::vector<std::pair<std::string, std::string>>;

Figures moreFigures(const MoreFigures& more, bool regions_are_known) {
  const auto known = [=](std::string text) { return regions_are_known ? std::move(text) : "-"; };
  return {{"Group", std::to_string(more.group)},
          {"Running threads", std::to_string(more.running_threads)},
          {"Regions", known(std::to_string(more.regions))},
          {"Shared", known(size(more.shared_bytes))},
          {"Private, virtual", known(size(more.private_virtual_bytes))},
          {"Untouched", known(size(more.untouched_bytes))},
          {"Own in libraries", known(size(more.libraries_bytes))},
          {"Kernel memory", size(more.kernel_bytes)}};
}

}  // namespace

void ProcessPage::take(const Sample& sample) {
  const auto same = std::ranges::find_if(
      sample.processes, [this](const ProcessFigures& process) { return idOf(process) == id(); });
  now_ = sample.at;
  has_ended_ = same == sample.processes.end();
  if (has_ended_) return;
  figures_ = *same;
  past_.push_back(figures_);
  if (past_.size() > kMostPast) past_.pop_front();
}

void ProcessPage::take(const OpenedProcess& opened) {
  if (opened.id == id() && !(has_ended_ && opened.threads.empty())) opened_ = opened;
}

void ProcessPage::addFigures(std::vector<FrameLine>& lines, std::size_t max_columns,
                             const UserNames& users) const {
  Figures figures = {{"Started", rfc3339(figures_.started_at).value_or("-")},
                     {"User id", std::to_string(figures_.uid)}};
  for (std::size_t i = 1; i + 1 < kColumns.size(); ++i) {
    figures.emplace_back(kColumns[i].heading, cellText(figures_, static_cast<Column>(i), now_, users));
  }
  if (figures_.more) {
    for (auto& figure : moreFigures(*figures_.more, figures_.private_bytes.has_value()))
      figures.push_back(std::move(figure));
  }
  const std::size_t pairs = std::max<std::size_t>(1, max_columns / kPairColumns);
  const std::size_t rows = (figures.size() + pairs - 1) / pairs;
  for (std::size_t row = 0; row < rows; ++row) {
    FrameLine& line = lines.emplace_back();
    for (std::size_t i = row; i < figures.size(); i += rows) {
      line.push_back({.text = padded(figures[i].first, kLabelColumns), .style = Style::kStrong});
      line.push_back({.text = padded(figures[i].second, kPairColumns - kLabelColumns)});
    }
  }
}

void ProcessPage::addGraphs(std::vector<FrameLine>& lines, std::size_t max_columns, bool unicode) const {
  using Value = std::function<std::optional<double>(const ProcessFigures&)>;
  const auto optional = [](const auto& value) {
    return value ? std::optional(static_cast<double>(*value)) : std::nullopt;
  };
  const std::pair<Column, Value> graphs[] = {
      {Column::kCpu, [](const auto& process) { return process.cpu_percent; }},
      {Column::kPrivate, [&](const auto& process) { return optional(process.private_bytes); }},
      {Column::kResident, [](const auto& process) { return static_cast<double>(process.resident_bytes); }},
      {Column::kThreads, [](const auto& process) { return static_cast<double>(process.threads); }},
      {Column::kFaults, [](const auto& process) { return process.faults_per_second; }},
      {Column::kSwitches, [](const auto& process) { return process.context_switches_per_second; }},
  };
  lines.push_back({});
  for (const auto& [column, value] : graphs) {
    std::vector<std::optional<double>> values;
    for (const ProcessFigures& process : past_) values.push_back(value(process));
    const std::string text = padded(cellText(figures_, column, now_, {}), 10, true) + "  ";
    const std::size_t taken = kLabelColumns + 12;
    const std::size_t room = max_columns - std::min(max_columns, taken);
    lines.push_back({{.text = padded(traitsOf(column).heading, kLabelColumns), .style = Style::kStrong},
                     {.text = text},
                     {.text = lineGraph(values, 0, room, unicode), .style = Style::kGraph}});
  }
}

void ProcessPage::addThreads(std::vector<FrameLine>& lines) const {
  std::vector<Row> rows = {{number("Thread"), {.text = "State"}, number("CPU time"), {.text = "Name"}}};
  for (const ThreadFigures& thread : opened_->threads) {
    rows.push_back({number(std::to_string(thread.id)),
                    {.text = threadStateName(thread.state)},
                    number(decimalText(thread.cpu_seconds, 2) + " s"),
                    {.text = thread.name}});
  }
  addTable(lines, rows);
}

void ProcessPage::addRegions(std::vector<FrameLine>& lines) const {
  if (!opened_->regions) {
    lines.push_back({});
    lines.push_back({{.text = "Its regions may not be read, or it has none.", .style = Style::kFaint}});
    return;
  }
  std::vector<Row> rows = {
      {{.text = "Regions of"}, number("Number"), number("Virtual"), number("Resident"), number("Private")}};
  for (const RegionKind& kind : *opened_->regions) {
    rows.push_back({{.text = kind.kind},
                    number(std::to_string(kind.regions)),
                    number(size(kind.virtual_bytes)),
                    number(size(kind.resident_bytes)),
                    number(size(kind.private_bytes))});
  }
  addTable(lines, rows);
}

std::vector<FrameLine> ProcessPage::lines(std::size_t max_columns, bool unicode, const UserNames& users,
                                          const std::string& command_line) const {
  const std::string title = "Process " + std::to_string(figures_.pid) + "  " + escaped(figures_.command);
  std::vector<FrameLine> lines = {{{.text = title, .style = Style::kStrong}}};
  if (has_ended_) lines.back().push_back({.text = "  has ended!", .style = Style::kAlarm});
  const std::vector<std::string> of_command = wrapped(escaped(command_line), max_columns);
  if (!command_line.empty()) lines.push_back({{.text = of_command.front()}});
  lines.push_back({});
  addFigures(lines, max_columns, users);
  addGraphs(lines, max_columns, unicode);
  if (opened_) addRegions(lines);
  if (of_command.size() > 1) addTable(lines, {{{.text = "Command line"}}});
  for (const std::string& line : of_command) {
    if (of_command.size() > 1) lines.push_back({{.text = line}});
  }
  if (opened_) addThreads(lines);
  return lines;
}

}  // namespace volorn::ctl
