#include "volornctl/live/machine_lines.h"

#include <algorithm>
#include <cmath>
#include <string_view>

#include "volornctl/live/process_columns.h"
#include "volornctl/text/graph.h"
#include "volornctl/text/number_text.h"

namespace volorn::ctl {
namespace {

constexpr double kGraphSeconds = 300;
constexpr std::size_t kMostPast = 4096;  // samples, of however short an interval
constexpr double kBusyPercent = 90;
constexpr double kShortShare = 0.1;
constexpr std::int32_t kHotLevel = 2;  // where the kernel begins to slow the machine down

using std::to_string;

std::string percent(const Rate& rate) {
  return rate ? decimalText(*rate, 1) + " %" : "-";
}

std::string size(const std::optional<std::uint64_t>& bytes) {
  return bytes ? shortSizeText(static_cast<double>(*bytes)) : "-";
}

std::string sizeRate(const Rate& rate) {
  return rate ? shortSizeText(*rate) + "/s" : "-";
}

Rate sum(const Rate& a, const Rate& b) {
  return a && b ? std::optional(*a + *b) : std::nullopt;
}

MachineLine processorsLine(const Sample& sample) {
  const Rate busy = sum(sample.user_percent, sample.system_percent);
  return {"Processors",
          {"user " + percent(sample.user_percent), "system " + percent(sample.system_percent),
           "idle " + percent(sample.idle_percent)},
          busy && *busy >= kBusyPercent,
          busy,
          100};
}

MachineLine memoryLine(const Sample& sample) {
  const auto total = static_cast<double>(sample.total_bytes);
  std::optional<double> used;
  if (sample.available_bytes) used = total - static_cast<double>(*sample.available_bytes);
  return {"Memory",
          {"available " + size(sample.available_bytes), "total " + size(sample.total_bytes),
           "wired " + size(sample.wired_bytes), "free " + size(sample.free_bytes),
           "active " + size(sample.active_bytes), "inactive " + size(sample.inactive_bytes)},
          used && total - *used < total * kShortShare,
          used,
          total};
}

MachineLine swapLine(const Sample& sample) {
  const auto number = [](const auto& bytes) {
    return bytes ? std::optional(static_cast<double>(*bytes)) : std::nullopt;
  };
  return {"Swap",
          {"total " + size(sample.swap_total_bytes), "used " + size(sample.swap_used_bytes)},
          false,
          number(sample.swap_used_bytes),
          number(sample.swap_total_bytes).value_or(0)};
}

MachineLine tasksLine(const Sample& sample) {
  std::uint32_t tasks = 0;
  for (const std::uint32_t count : sample.state_counts) tasks += count;
  std::vector<std::string> fields = {to_string(tasks)};
  for (const std::uint32_t state : {kProcessRunning, kProcessUninterruptible, kProcessStopped, kProcessHalted,
                                    kProcessSleeping, kProcessIdle, kProcessUnknown}) {
    const std::uint32_t count = sample.state_counts[state];
    if (count == 0 && state != kProcessRunning) continue;
    fields.push_back(to_string(count) + " " + shortStateName(state));
  }
  fields.push_back(to_string(sample.threads) + " threads");
  return {"Tasks", std::move(fields), false, sample.state_counts[kProcessRunning], 0};
}

std::vector<std::string> loadFields(const Sample& sample) {
  std::vector<std::string> fields;
  for (const double load : sample.load) fields.push_back(decimalText(load, 2));
  return fields;
}

}  // namespace

std::vector<MachineLine> machineLines(const Sample& sample) {
  std::vector<MachineLine> lines = {
      processorsLine(sample),
      memoryLine(sample),
      {"Load", loadFields(sample), false, sample.load[0], 0},
      tasksLine(sample),
      {"Network",
       {"in " + sizeRate(sample.in_bytes_per_second), "out " + sizeRate(sample.out_bytes_per_second)},
       false,
       sum(sample.in_bytes_per_second, sample.out_bytes_per_second),
       0},
      {"Disk",
       {"read " + sizeRate(sample.read_bytes_per_second), "write " + sizeRate(sample.write_bytes_per_second)},
       false,
       sum(sample.read_bytes_per_second, sample.write_bytes_per_second),
       0},
      swapLine(sample)};
  const std::int32_t heat = sample.thermal_level.value_or(0);
  if (heat > 0) {
    const std::string text = "level " + to_string(heat) + " of 4";
    lines.insert(lines.begin(), MachineLine{"Heat", {text}, heat >= kHotLevel, heat, 4});
  }
  return lines;
}

void MachineHistory::take(const Sample& sample) {
  past_.push_back({.seconds = sample.interval_seconds.value_or(0), .lines = machineLines(sample)});
  if (past_.size() > kMostPast) past_.pop_front();
  ++taken_;
}

std::string MachineHistory::graphOf(const MachineLine& line, std::size_t columns, bool unicode) const {
  std::vector<std::optional<double>> values;
  double seconds = 0;
  for (auto past = past_.rbegin(); past != past_.rend() && seconds < kGraphSeconds; ++past) {
    const auto of_line =
        std::ranges::find(past->lines, std::string_view(line.label),
                          [](const MachineLine& other) { return std::string_view(other.label); });
    values.push_back(of_line == past->lines.end() ? std::nullopt : of_line->value);
    seconds += past->seconds;
  }
  std::ranges::reverse(values);
  // As many as five minutes take at the pace so far, so that the graph does not shrink as it fills.
  std::size_t together = 1;
  if (values.size() > 1 && seconds > 0) {
    const double of_five_minutes = kGraphSeconds / seconds * static_cast<double>(values.size());
    together = std::max<std::size_t>(
        1, static_cast<std::size_t>(std::ceil(std::min(of_five_minutes, 1e6) /
                                              static_cast<double>(std::max<std::size_t>(columns, 1)))));
  }
  return lineGraph(means(values, taken_, together), line.full, columns, unicode);
}

std::vector<std::optional<double>> means(const std::vector<std::optional<double>>& values, std::size_t taken,
                                         std::size_t together) {
  std::vector<std::optional<double>> result;
  std::size_t begin = 0;
  while (begin < values.size()) {
    const std::size_t number = taken - values.size() + begin;
    const std::size_t end = std::min(values.size(), begin + together - number % together);
    double total = 0;
    int known = 0;
    for (std::size_t i = begin; i < end; ++i) {
      if (!values[i]) continue;
      total += *values[i];
      ++known;
    }
    result.push_back(known > 0 ? std::optional(total / known) : std::nullopt);
    begin = end;
  }
  return result;
}

}  // namespace volorn::ctl
