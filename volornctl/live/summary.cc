#include "volornctl/live/summary.h"

#include <algorithm>
#include <array>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/linux/read_only_host.h"
#include "snapshot/voLornTop.h"
#include "volornctl/text/json_text.h"
#include "volornctl/text/number_text.h"
#include "volornctl/text/table.h"

namespace volorn::ctl {
namespace {

constexpr std::string_view kProcessesKey = "Process Stats";

struct Column {
  std::string_view key;
  const char* heading;
};

// Rates, which are 0 in a summary: it takes one sample. Some of what they count Linux does not tell at all.
constexpr std::array kGroupsOfRates = {"Network", "Disk", "VM Faults"};
constexpr const char* kWhereRatesAre =
    "Rates and shares of processors take two samples: volornctl top has them.\n";

// Without rates; the command comes last, being of any length.
constexpr std::array kColumns = {
    Column{"pid", "PID"},
    Column{"Kernel Resources/Threads", "Threads"},
    Column{"Kernel Resources/Mach Ports", "Ports"},
    Column{"Memory Regions/Count", "Regions"},
    Column{"Memory Regions/Resident Size (Private)", "Private"},
    Column{"Memory Regions/Resident Size (Shared)", "Shared"},
    Column{"Memory Regions/Resident Size", "Resident"},
    Column{"Memory Regions/Virtual Size", "Virtual"},
    Column{"Command", "Command"},
};

Json json(const ActivitySummary& summary) {
  Json::object_t object;
  object.reserve(summary.entries().size());
  for (const auto& [key, value] : summary.entries()) {
    Json shown = std::visit(
        [](const auto& held) -> Json {
          if constexpr (std::is_same_v<std::decay_t<decltype(held)>, ActivitySummary>)
            return json(held);
          else
            return held;
        },
        value);
    // The keys of a summary are distinct; to look for each again takes long where there are many processes.
    object.emplace_back(key, std::move(shown));
  }
  return object;
}

std::string text(const ActivitySummary::Value& value) {
  const auto tell = [](const auto& held) -> std::string {
    using Held = std::decay_t<decltype(held)>;
    if constexpr (std::is_same_v<Held, std::string>)
      return held;
    else if constexpr (std::is_same_v<Held, double>)
      return decimalText(held, 2);
    else if constexpr (std::is_integral_v<Held>)
      return std::to_string(held);
    else
      return "";
  };
  return std::visit(tell, value);
}

// What 64 bits hold is a size.
std::string reading(const ActivitySummary::Value& value) {
  if (const auto* bytes = std::get_if<std::int64_t>(&value)) return sizeText(static_cast<double>(*bytes));
  if (const auto* bytes = std::get_if<std::uint64_t>(&value)) return sizeText(static_cast<double>(*bytes));
  return "";
}

std::vector<Row> systemRows(const ActivitySummary& summary) {
  std::vector<Row> rows;
  std::string group_above;
  for (const auto& [key, value] : summary.entries()) {
    if (key == kProcessesKey) continue;
    const std::size_t slash = key.find('/');
    std::string group = key.substr(0, slash);
    if (std::ranges::find(kGroupsOfRates, group) != kGroupsOfRates.end()) continue;
    rows.push_back({{.text = group == group_above ? "" : group, .strong = true},
                    {.text = key.substr(slash + 1)},
                    {.text = text(value), .right = true},
                    {.text = reading(value), .right = true}});
    group_above = std::move(group);
  }
  return rows;
}

std::vector<Row> processRows(const ActivitySummary& processes) {
  Row headings;
  for (const Column& column : kColumns) {
    headings.push_back({.text = column.heading, .strong = true, .right = column.key != "Command"});
  }
  std::vector<Row> rows = {std::move(headings)};
  for (const auto& [key, value] : processes.entries()) {
    const auto& process = std::get<ActivitySummary>(value);
    Row& row = rows.emplace_back();
    for (const Column& column : kColumns) {
      const ActivitySummary::Value* figure = process.find(column.key);
      row.push_back({.text = figure ? text(*figure) : "", .right = column.key != "Command"});
    }
  }
  return rows;
}

}  // namespace

std::string summaryJson(const ActivitySummary& summary) {
  return jsonLine(json(summary));
}

std::string summaryTable(const ActivitySummary& summary, bool colour) {
  std::string result = table(systemRows(summary), colour);
  if (const ActivitySummary::Value* processes = summary.find(kProcessesKey)) {
    result +=
        "\n" + table(processRows(std::get<ActivitySummary>(*processes)), colour) + "\n" + kWhereRatesAre;
  }
  return result;
}

CLI::App* SummaryCommand::addTo(CLI::App& program) {
  CLI::App* command = program.add_subcommand("summary", "Show what the machine and its processes do");
  command->add_flag("--json", json_, kJsonHelp);
  return command;
}

void SummaryCommand::run(const Surroundings& surroundings) {
  const linux_host::ReadOnlyHost host;
  const std::optional<ActivitySummary> summary = voLornTop::_getTopData();
  if (!summary) throw std::runtime_error("this machine's counters cannot be read");
  surroundings.output.write(json_ ? summaryJson(*summary) : summaryTable(*summary, surroundings.colour));
}

}  // namespace volorn::ctl
