#include "volornctl/text/day_axis.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <optional>

namespace volorn::ctl {
namespace {

using std::chrono::days;
using std::chrono::sys_days;
using std::chrono::year_month_day;

struct Step {
  int months;  // 0: it is of days
  int days;
};

constexpr std::array kSteps = {Step{0, 1}, Step{0, 2},  Step{0, 7},  Step{0, 14}, Step{1, 0},
                               Step{3, 0}, Step{12, 0}, Step{24, 0}, Step{60, 0}, Step{120, 0}};

constexpr int kDaysOfWeek = 7;

year_month_day dateOfDay(std::int64_t day) {
  return sys_days(days(static_cast<int>(day)));
}

std::int64_t dayOf(const year_month_day& date) {
  return sys_days(date).time_since_epoch().count();
}

// Weeks begin on Mondays; the first one after 1970 was the fifth day.
std::int64_t firstTick(std::int64_t day, const Step& step) {
  if (step.months == 0) {
    if (step.days < kDaysOfWeek) return day;
    constexpr std::int64_t kFirstMonday = 4;
    const std::int64_t over = (day - kFirstMonday) % step.days;
    return over == 0 ? day : day + step.days - (over < 0 ? over + step.days : over);
  }
  const year_month_day date = dateOfDay(day);
  int month = static_cast<int>(date.year()) * 12 + static_cast<int>(static_cast<unsigned>(date.month())) - 1;
  if (static_cast<unsigned>(date.day()) > 1) ++month;
  month = (month + step.months - 1) / step.months * step.months;
  return dayOf(std::chrono::year(month / 12) / (month % 12 + 1) / 1);
}

std::int64_t nextTick(std::int64_t day, const Step& step) {
  if (step.months == 0) return day + step.days;
  return dayOf(dateOfDay(day) + std::chrono::months(step.months));
}

std::string label(std::int64_t day, const Step& step, const std::optional<std::int64_t>& before) {
  constexpr std::array kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const year_month_day date = dateOfDay(day);
  const bool has_year = !before || dateOfDay(*before).year() != date.year();
  const std::string year = std::to_string(static_cast<int>(date.year()));
  if (step.months >= 12) return year;
  const auto month = static_cast<unsigned>(date.month());
  if (step.months > 0) return kMonths.at(month - 1) + (has_year ? " " + year : "");
  char text[16];
  std::snprintf(text, sizeof text, "%02u-%02u", month, static_cast<unsigned>(date.day()));
  return (has_year ? year + "-" : "") + text;
}

}  // namespace

std::vector<DayTick> dayTicks(std::int64_t first_day, std::int64_t last_day, std::size_t max_count) {
  for (const Step& step : kSteps) {
    std::vector<DayTick> ticks;
    for (std::int64_t day = firstTick(first_day, step); day <= last_day && ticks.size() <= max_count;
         day = nextTick(day, step)) {
      const std::optional<std::int64_t> before =
          ticks.empty() ? std::nullopt : std::optional(ticks.back().day);
      ticks.push_back({.day = day, .label = label(day, step, before)});
    }
    if (ticks.size() <= max_count) return ticks;
  }
  return {};
}

std::string axisLine(std::int64_t first_day, std::int64_t last_day, std::size_t columns) {
  constexpr std::size_t kColumnsOfTick = 7;
  const auto span = static_cast<std::size_t>(last_day - first_day + 1);
  std::string line;
  for (const DayTick& tick : dayTicks(first_day, last_day, columns / kColumnsOfTick + 1)) {
    const std::size_t column = static_cast<std::size_t>(tick.day - first_day) * columns / span;
    const bool fits = column > line.size() && column + tick.label.size() <= columns;
    if (!line.empty() && !fits) continue;
    line.resize(column, ' ');
    line += tick.label;
  }
  return line;
}

}  // namespace volorn::ctl
