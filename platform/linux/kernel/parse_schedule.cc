#include "platform/linux/kernel/parse_schedule.h"

#include <algorithm>
#include <charconv>

#include "platform/linux/parse_fields.h"

namespace volorn::linux_host {
namespace {

// Longer than a command name can be.
constexpr std::string_view kDashes = "\n--------------------------------";

// The whole number at the front of `value`, which `tail` must follow. Milliseconds have a fraction behind a
// point.
template <typename Number>
bool parseFigure(std::string_view value, std::string_view tail, Number& number) {
  value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
  Number found = 0;
  const char* end = value.data() + value.size();
  const auto [stopped, error] = std::from_chars(value.data(), end, found);
  if (error != std::errc() || found < 0 || std::string_view(stopped, end).substr(0, 1) != tail) return false;
  number = found;
  return true;
}

}  // namespace

std::optional<ThreadSchedule> parseSchedule(std::string_view text) {
  const std::size_t dashes = text.find(kDashes);
  if (dashes == text.npos) return std::nullopt;
  text.remove_prefix(dashes + 1);
  takeLine(text);
  ThreadSchedule schedule;
  bool has_last_ran = false;
  while (!text.empty()) {
    const std::string_view line = takeLine(text);
    const std::size_t colon = line.find(':');
    if (colon == line.npos) continue;
    const std::string_view key = line.substr(0, line.find(' '));
    if (key == "se.exec_start") {
      if (!parseFigure(line.substr(colon + 1), ".", schedule.last_ran_ms)) return std::nullopt;
      has_last_ran = true;
    } else if (key == "nr_switches") {
      if (!has_last_ran || !parseFigure(line.substr(colon + 1), "", schedule.context_switches)) break;
      return schedule;
    }
  }
  return std::nullopt;
}

std::optional<ThreadRuns> parseThreadRuns(std::string_view text) {
  ThreadRuns runs;
  FieldReader fields(text);
  const bool is_whole = fields.take(runs.run_ns) && fields.take(runs.waited_ns) && fields.take(runs.slices);
  return is_whole && runs != ThreadRuns() ? std::optional(runs) : std::nullopt;
}

}  // namespace volorn::linux_host
