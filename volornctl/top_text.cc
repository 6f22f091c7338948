#include "volornctl/top_text.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <limits>
#include <utility>

#include "volornctl/json_text.h"
#include "volornctl/number_text.h"
#include "volornctl/table.h"
#include "volornctl/time_text.h"

namespace volorn::ctl {
namespace {

const char* stateName(std::uint32_t state) {
  // By ProcessState, from 1 on.
  static constexpr std::array kNames = {"running", "uninterruptible", "sleeping", "idle",
                                        "stopped", "halted",          "unknown"};
  return state >= 1 && state <= kNames.size() ? kNames[state - 1] : "unknown";
}

Json json(const std::optional<double>& number) {
  return number ? Json(*number) : Json();
}

Json processJson(const ProcessFigures& process) {
  return {{"pid", process.pid},
          {"command", process.command},
          {"state", stateName(process.state)},
          {"cpuPercent", json(process.cpu_percent)},
          {"threads", process.threads},
          {"residentBytes", process.resident_bytes},
          {"privateBytes", process.private_bytes},
          {"virtualBytes", process.virtual_bytes},
          {"faultsPerSecond", json(process.faults_per_second)},
          {"contextSwitchesPerSecond", json(process.context_switches_per_second)}};
}

std::string decimal(const Rate& rate) {
  return rate ? decimalText(*rate, 1) : "-";
}

std::string size(std::uint64_t bytes) {
  return sizeText(static_cast<double>(bytes));
}

std::string sizeRate(const Rate& rate) {
  return rate ? sizeText(*rate) + "/s" : "-";
}

std::vector<Row> systemRows(const TopFigures& figures) {
  const auto row = [](const char* name, std::initializer_list<std::pair<const char*, std::string>> shown) {
    Row cells = {{.text = name, .strong = true}};
    for (const auto& [label, text] : shown) {
      cells.push_back({.text = label});
      cells.push_back({.text = text, .right = true});
    }
    return cells;
  };
  const auto percent = [](const Rate& rate) { return rate ? decimal(rate) + " %" : "-"; };
  return {
      row("Load", {{"1 min", decimalText(figures.load[0], 2)},
                   {"5 min", decimalText(figures.load[1], 2)},
                   {"15 min", decimalText(figures.load[2], 2)},
                   {"threads", std::to_string(figures.threads)}}),
      row("Processors", {{"user", percent(figures.user_percent)},
                         {"system", percent(figures.system_percent)},
                         {"idle", percent(figures.idle_percent)}}),
      row("Memory", {{"wired", size(figures.wired_bytes)},
                     {"active", size(figures.active_bytes)},
                     {"inactive", size(figures.inactive_bytes)},
                     {"free", size(figures.free_bytes)}}),
      row("Network",
          {{"in", sizeRate(figures.in_bytes_per_second)}, {"out", sizeRate(figures.out_bytes_per_second)}}),
      row("Disk", {{"read", sizeRate(figures.read_bytes_per_second)},
                   {"write", sizeRate(figures.write_bytes_per_second)}}),
  };
}

Row processRow(const ProcessFigures& process) {
  return {{.text = std::to_string(process.pid), .right = true},
          {.text = decimal(process.cpu_percent), .right = true},
          {.text = stateName(process.state)},
          {.text = std::to_string(process.threads), .right = true},
          {.text = size(process.resident_bytes), .right = true},
          {.text = size(process.private_bytes), .right = true},
          {.text = size(process.virtual_bytes), .right = true},
          {.text = decimal(process.faults_per_second), .right = true},
          {.text = decimal(process.context_switches_per_second), .right = true},
          {.text = process.command}};
}

Row headings() {
  return {{.text = "PID", .strong = true, .right = true},
          {.text = "CPU %", .strong = true, .right = true},
          {.text = "State", .strong = true},
          {.text = "Threads", .strong = true, .right = true},
          {.text = "Resident", .strong = true, .right = true},
          {.text = "Private", .strong = true, .right = true},
          {.text = "Virtual", .strong = true, .right = true},
          {.text = "Faults/s", .strong = true, .right = true},
          {.text = "Switches/s", .strong = true, .right = true},
          {.text = "Command", .strong = true}};
}

std::string titleLine(const TopFigures& figures) {
  std::string title = utcTime(figures.at) + ", " + std::to_string(figures.processes.size()) + " processes";
  if (figures.interval_seconds) {
    title += ", over " + decimalText(*figures.interval_seconds, 1) + " s";
  }
  return title;
}

}  // namespace

std::string topJson(const TopFigures& figures) {
  Json document;
  document["schema"] = kJsonSchema;
  document["at"] = jsonTime(figures.at);
  document["intervalSeconds"] = json(figures.interval_seconds);
  document["cpu"] = {{"userPercent", json(figures.user_percent)},
                     {"systemPercent", json(figures.system_percent)},
                     {"idlePercent", json(figures.idle_percent)}};
  document["load"] = figures.load;
  document["threads"] = figures.threads;
  document["memory"] = {{"wiredBytes", figures.wired_bytes},
                        {"activeBytes", figures.active_bytes},
                        {"inactiveBytes", figures.inactive_bytes},
                        {"freeBytes", figures.free_bytes}};
  document["network"] = {{"inBytesPerSecond", json(figures.in_bytes_per_second)},
                         {"outBytesPerSecond", json(figures.out_bytes_per_second)}};
  document["disk"] = {{"readBytesPerSecond", json(figures.read_bytes_per_second)},
                      {"writeBytesPerSecond", json(figures.write_bytes_per_second)}};
  Json processes = Json::array();
  for (const ProcessFigures& process : figures.processes) processes.push_back(processJson(process));
  document["processes"] = std::move(processes);
  return jsonLine(document);
}

std::vector<std::string> topLines(const TopFigures& figures, const std::optional<Room>& room, bool colour) {
  constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();
  const std::size_t max_rows = room ? room->rows : kNoLimit;
  const std::size_t max_columns = room ? room->columns : kNoLimit;
  std::vector<std::string> lines = tableLines({{{.text = titleLine(figures)}}}, colour, max_columns);
  std::ranges::move(tableLines(systemRows(figures), colour, max_columns), std::back_inserter(lines));
  lines.emplace_back();
  std::vector<Row> rows = {headings()};
  for (const ProcessFigures& process : figures.processes) {
    if (lines.size() + rows.size() >= max_rows) break;
    rows.push_back(processRow(process));
  }
  std::ranges::move(tableLines(rows, colour, max_columns), std::back_inserter(lines));
  if (lines.size() > max_rows) lines.resize(max_rows);
  return lines;
}

}  // namespace volorn::ctl
