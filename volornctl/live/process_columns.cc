#include "volornctl/live/process_columns.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "volornctl/text/number_text.h"
#include "volornctl/text/table.h"

namespace volorn::ctl {
namespace {

constexpr const char* kUnknown = "-";

std::string decimal(const Rate& rate) {
  return rate ? decimalText(*rate, 1) : kUnknown;
}

// "12s", "3m05s", "2h07m", "1d03h", "400d"
std::string ageText(double seconds) {
  const auto whole = static_cast<std::int64_t>(std::clamp(seconds, 0.0, 1e15));
  const auto two = [](std::int64_t first, char unit, std::int64_t second, char next) {
    char text[48];
    std::snprintf(text, sizeof text, "%lld%c%02lld%c", static_cast<long long>(first), unit,
                  static_cast<long long>(second), next);
    return std::string(text);
  };
  if (whole < 60) return std::to_string(whole) + "s";
  if (whole < 3600) return two(whole / 60, 'm', whole % 60, 's');
  if (whole < 86'400) return two(whole / 3600, 'h', whole % 3600 / 60, 'm');
  if (whole < 100 * 86'400) return two(whole / 86'400, 'd', whole % 86'400 / 3600, 'h');
  return std::to_string(whole / 86'400) + "d";
}

// Minutes, seconds and hundredths, "0:02.34"; from a thousand minutes on hours and minutes, "16h40m".
std::string processorTimeText(double seconds) {
  const auto hundredths = static_cast<std::int64_t>(std::clamp(seconds, 0.0, 1e13) * 100 + 0.5);
  const std::int64_t minutes = hundredths / 6000;
  char text[48];
  if (minutes < 1000) {
    std::snprintf(text, sizeof text, "%lld:%02lld.%02lld", static_cast<long long>(minutes),
                  static_cast<long long>(hundredths / 100 % 60), static_cast<long long>(hundredths % 100));
  } else {
    std::snprintf(text, sizeof text, "%lldh%02lldm", static_cast<long long>(minutes / 60),
                  static_cast<long long>(minutes % 60));
  }
  return text;
}

// None for texts, and for what is not known.
std::optional<double> numberIn(const ProcessFigures& process, Column column) {
  const auto number = [](const auto& value) { return static_cast<double>(value); };
  const auto optional = [](const auto& value) {
    return value ? std::optional(static_cast<double>(*value)) : std::nullopt;
  };
  switch (column) {
    case Column::kPid:
      return number(process.pid);
    case Column::kCpu:
      return process.cpu_percent;
    case Column::kPrivate:
      return optional(process.private_bytes);
    case Column::kResident:
      return number(process.resident_bytes);
    case Column::kState:
      return number(process.state);
    case Column::kThreads:
      return number(process.threads);
    case Column::kParent:
      return number(process.ppid);
    case Column::kAge:
      return -process.started_at.secondsSince1970();
    case Column::kTime:
      return process.cpu_seconds;
    case Column::kVirtual:
      return number(process.virtual_bytes);
    case Column::kDescriptors:
      return optional(process.descriptors);
    case Column::kFaults:
      return process.faults_per_second;
    case Column::kMajorFaults:
      return process.major_faults_per_second;
    case Column::kSwitches:
      return process.context_switches_per_second;
    case Column::kFootprint:
      return number(process.footprint_bytes);
    case Column::kUser:
    case Column::kCommand:
      break;
  }
  return std::nullopt;
}

}  // namespace

std::vector<std::string> columnNames() {
  std::vector<std::string> names;
  for (const ColumnTraits& column : kColumns) names.emplace_back(column.name);
  return names;
}

std::optional<Column> columnNamed(std::string_view name) {
  const auto* found = std::ranges::find(kColumns, name, &ColumnTraits::name);
  if (found == kColumns.end()) return std::nullopt;
  return static_cast<Column>(found - kColumns.begin());
}

const char* shortStateName(std::uint32_t state) {
  return state == kProcessUninterruptible ? "blocked" : stateName(state);
}

std::string userText(std::uint32_t uid, const UserNames& names) {
  const auto name = names.find(uid);
  return name == names.end() ? std::to_string(uid) : escaped(name->second);
}

std::string cellText(const ProcessFigures& process, Column column, const Date& now, const UserNames& names) {
  const std::optional<double> number = numberIn(process, column);
  switch (column) {
    case Column::kUser:
      return userText(process.uid, names);
    case Column::kCommand:
      return escaped(process.command);
    case Column::kState:
      return shortStateName(process.state);
    case Column::kAge:
      return ageText(now.secondsSince(process.started_at));
    case Column::kTime:
      return processorTimeText(process.cpu_seconds);
    case Column::kCpu:
    case Column::kFaults:
    case Column::kMajorFaults:
    case Column::kSwitches:
      return decimal(number);
    case Column::kPrivate:
    case Column::kResident:
    case Column::kVirtual:
    case Column::kFootprint:
      return number ? shortSizeText(*number) : kUnknown;
    case Column::kPid:
    case Column::kParent:
    case Column::kThreads:
    case Column::kDescriptors:
      break;
  }
  return number ? decimalText(*number, 0) : kUnknown;
}

double orderKey(const ProcessFigures& process, Column column, bool reverse) {
  const std::optional<double> number = numberIn(process, column);
  if (!number) return std::numeric_limits<double>::infinity();
  return traitsOf(column).most_first == reverse ? *number : -*number;
}

std::vector<Column> fittingColumns(const std::array<std::size_t, kColumns.size()>& widths,
                                   std::size_t max_columns) {
  const auto width_of = [&](Column column) { return widths.at(static_cast<std::size_t>(column)) + 1; };
  const std::size_t for_command = std::clamp<std::size_t>(max_columns / 4, 12, 40);
  std::vector<Column> columns = {Column::kPid};
  std::size_t taken = width_of(Column::kPid) + for_command;
  for (std::size_t i = 1; i + 1 < kColumns.size(); ++i) {
    const auto column = static_cast<Column>(i);
    taken += width_of(column);
    if (taken > max_columns) break;
    columns.push_back(column);
  }
  columns.push_back(Column::kCommand);
  return columns;
}

}  // namespace volorn::ctl
