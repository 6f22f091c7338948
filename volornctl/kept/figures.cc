#include "volornctl/kept/figures.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <string_view>
#include <unordered_map>

#include "platform/snapshot_keys.h"
#include "volornctl/kept/key_meaning.h"
#include "volornctl/text/number_text.h"
#include "volornctl/text/time_text.h"

namespace volorn::ctl {
namespace {

using linux_host::StoredSnapshot;

constexpr double kSecondsPerDay = 86'400;
constexpr double kDaysPerYear = 365.25;
constexpr std::int64_t kFirstPlausibleDay = 11'323;  // 1 January 2001
constexpr std::int64_t kFarthestPlausibleDays = 2;

bool isWithin(const Days& days, std::int64_t day) {
  return day >= days.first && day <= days.last;
}

// None where only the data tell how far it reaches.
std::optional<Axis> fixedAxis(std::string_view key) {
  const KeyMeaning* meaning = meaningOf(key);
  if (!meaning) return std::nullopt;
  switch (meaning->unit) {
    case Unit::kTimeOfDay:
      return Axis{0, kSecondsPerDay};
    case Unit::kLevel:
      return Axis{0, 4};
    case Unit::kYesNo:
      return Axis{0, 1};
    case Unit::kPercent100x:
      return Axis{0, 10'000};
    case Unit::kPercent:
      return Axis{0, 100};
    case Unit::kSeconds100x:
    case Unit::kCapacity:
    case Unit::kHundredths:
      return std::nullopt;
  }
  return std::nullopt;
}

// Every number but 0 is a yes.
std::int64_t pointValue(std::string_view key, std::int64_t value) {
  const KeyMeaning* meaning = meaningOf(key);
  return meaning && meaning->unit == Unit::kYesNo ? std::int64_t{value != 0} : value;
}

// 214748 percent of a display is nothing to be drawn, nor to be part of a mean.
bool canBe(const std::optional<Axis>& axis, std::int64_t value) {
  const auto number = static_cast<double>(value);
  return !axis || (number >= axis->low && number <= axis->high);
}

// The days that have a snapshot, each once.
std::vector<std::int64_t> daysTaken(const History& history, const Days& days) {
  std::vector<std::int64_t> taken;
  for (const StoredSnapshot& snapshot : history) {
    const std::optional<std::int64_t> day = daysSince1970(snapshot.taken_at);
    if (day && isWithin(days, *day)) taken.push_back(*day);
  }
  std::ranges::sort(taken);
  taken.erase(std::unique(taken.begin(), taken.end()), taken.end());
  return taken;
}

double medianOf(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Least squares through the medians of 30 days each: a firmware that shows something else for a day, as some
// do after each full charge, moves no median.
std::optional<double> slopePerDay(const std::vector<Point>& points) {
  constexpr std::int64_t kDaysOfMedian = 30;
  constexpr std::int64_t kFewestDays = 90;
  if (points.back().day - points.front().day < kFewestDays) return std::nullopt;
  std::map<std::int64_t, std::vector<double>> months;
  for (const Point& point : points) {
    months[(point.day - points.front().day) / kDaysOfMedian].push_back(static_cast<double>(point.value));
  }
  double count = 0, x_sum = 0, y_sum = 0, xx_sum = 0, xy_sum = 0;
  for (const auto& [month, values] : months) {
    const auto x = static_cast<double>(month * kDaysOfMedian);
    const double y = medianOf(values);
    count += 1;
    x_sum += x;
    y_sum += y;
    xx_sum += x * x;
    xy_sum += x * y;
  }
  return (count * xy_sum - x_sum * y_sum) / (count * xx_sum - x_sum * x_sum);
}

// Seconds after the plan. The device's distance from UTC is what lies between its own time of day and the
// time that the snapshot was taken at; zones differ by whole quarters of an hour.
std::optional<double> secondsLate(const StoredSnapshot& snapshot, const Days& days,
                                  const std::optional<std::int64_t>& day_before) {
  constexpr double kQuarter = 900;
  const auto wakeup = knownValue(snapshot, snapshot_key::kWakeup);
  const auto planned = knownValue(snapshot, snapshot_key::kPlanned);
  const auto day = daysSince1970(snapshot.taken_at);
  if (!wakeup || !planned || !day_before || !day || !isWithin(days, *day) || *day <= *day_before) {
    return std::nullopt;
  }
  const double taken_at = snapshot.taken_at.secondsSince1970();
  const double east = std::round((static_cast<double>(*wakeup) - taken_at) / kQuarter) * kQuarter;
  double plan_utc = std::fmod(static_cast<double>(*planned) - east, kSecondsPerDay);
  if (plan_utc < 0) plan_utc += kSecondsPerDay;
  return taken_at - (static_cast<double>(*day_before + 1) * kSecondsPerDay + plan_utc);
}

std::string percentText(double value) {
  return decimalText(value, 1) + " %";
}

std::string dayName(std::int64_t day) {
  return dayText(day).value_or("beyond the calendar");
}

using Figures = std::vector<std::pair<std::string, std::string>>;

void addWear(Figures& figures, const Wear& wear) {
  const auto share = [&](std::int64_t of) {
    return percentText(100 * static_cast<double>(wear.newest) / static_cast<double>(of));
  };
  figures.emplace_back("Capacity left",
                       share(wear.first) + " of the first, " + share(wear.greatest) + " of the most");
  if (!wear.percent_of_greatest_per_year) return;
  const double slope = *wear.percent_of_greatest_per_year;
  figures.emplace_back("Change in a year", std::string(slope > 0 ? "+" : "") + percentText(slope));
}

void addMissingDays(Figures& figures, const MissingDays& missing, const Days& days) {
  figures.emplace_back("Days without", std::to_string(missing.count) + " of " + std::to_string(days.count()) +
                                           " since " + dayName(days.first));
  if (missing.count == 0) return;
  const std::size_t longest = missing.longest.count();
  figures.emplace_back("Longest gap", std::to_string(longest) + (longest == 1 ? " day, " : " days from ") +
                                          dayName(missing.longest.first));
}

void addLateness(Figures& figures, const Lateness& lateness) {
  if (lateness.planned == 0) return;
  figures.emplace_back("Late starts",
                       std::to_string(lateness.late) + " of " + std::to_string(lateness.planned));
  if (lateness.late == 0) return;
  figures.emplace_back("Latest start",
                       duration(static_cast<std::int64_t>(lateness.most_seconds)) + " after its plan");
}

}  // namespace

std::optional<Days> daysOf(const History& history, const Date& now) {
  const std::int64_t last = daysSince1970(now).value_or(std::numeric_limits<std::int32_t>::max());
  const Days plausible = {.first = kFirstPlausibleDay, .last = last + kFarthestPlausibleDays};
  const std::vector<std::int64_t> taken = daysTaken(history, plausible);
  if (taken.empty()) return std::nullopt;
  return Days{.first = taken.front(), .last = taken.back()};
}

std::vector<KeyPoints> pointsOf(const History& history, const Days& days) {
  std::vector<KeyPoints> keys;
  std::unordered_map<std::string_view, std::size_t> places;
  for (auto snapshot = history.rbegin(); snapshot != history.rend(); ++snapshot) {
    const std::optional<std::int64_t> day = daysSince1970(snapshot->taken_at);
    for (const auto& [key, value] : snapshot->metrics) {
      const auto [place, is_new] = places.emplace(key, keys.size());
      if (is_new) keys.push_back({.key = key, .points = {}});
      const std::int64_t shown = pointValue(key, value);
      if (!day || !isWithin(days, *day) || !snapshot->isKnown(key) || !canBe(fixedAxis(key), shown)) continue;
      keys[place->second].points.push_back(
          {.day = *day, .at = snapshot->taken_at.secondsSince1970(), .value = shown});
    }
  }
  for (KeyPoints& key : keys) {
    std::ranges::reverse(key.points);
    std::ranges::stable_sort(key.points, {}, &Point::at);
  }
  return keys;
}

std::optional<Spread> spreadOf(const std::vector<Point>& points) {
  if (points.empty()) return std::nullopt;
  const auto [least, most] = std::ranges::minmax(points, {}, &Point::value);
  double sum = 0;
  for (const Point& point : points) sum += static_cast<double>(point.value);
  return Spread{.least = least.value, .mean = sum / static_cast<double>(points.size()), .most = most.value};
}

std::string figureText(const std::string& key, std::int64_t value) {
  const std::string text = reading(key, value);
  return text.empty() ? std::to_string(value) : text;
}

std::string meanText(const std::string& key, double mean) {
  const KeyMeaning* meaning = meaningOf(key);
  if (meaning && meaning->unit == Unit::kYesNo) return decimalText(100 * mean, 0) + " % yes";
  if (!meaning || meaning->unit == Unit::kLevel) return decimalText(mean, 2);
  constexpr double kMost = 9e18;
  return figureText(key, std::llround(std::clamp(mean, -kMost, kMost)));
}

Axis axisOf(const std::string& key, const Spread& spread) {
  return fixedAxis(key).value_or(Axis{.low = std::min(0.0, static_cast<double>(spread.least)),
                                      .high = std::max(0.0, static_cast<double>(spread.most))});
}

std::optional<Wear> wearOf(const std::vector<Point>& capacity) {
  constexpr std::int64_t kOfPercents = 100;
  // A full figure of 0 or below is that of a pack that does not know it.
  std::vector<Point> points;
  std::ranges::copy_if(capacity, std::back_inserter(points),
                       [](const Point& point) { return point.value > 0; });
  if (std::ranges::all_of(points, [](const Point& point) { return point.value == kOfPercents; })) {
    return std::nullopt;
  }
  const std::int64_t greatest = spreadOf(points)->most;
  Wear wear = {.first = points.front().value,
               .greatest = greatest,
               .newest = points.back().value,
               .percent_of_greatest_per_year = std::nullopt};
  if (const auto slope = slopePerDay(points)) {
    wear.percent_of_greatest_per_year = *slope * kDaysPerYear * 100 / static_cast<double>(greatest);
  }
  return wear;
}

MissingDays missingDaysOf(const History& history, const Days& days) {
  const std::vector<std::int64_t> taken = daysTaken(history, days);
  MissingDays missing = {.count = days.count() - taken.size(), .longest = {0, -1}};
  for (std::size_t i = 1; i < taken.size(); ++i) {
    const Days between = {.first = taken[i - 1] + 1, .last = taken[i] - 1};
    if (between.count() > missing.longest.count()) missing.longest = between;
  }
  return missing;
}

Lateness latenessOf(const History& history, const Days& days) {
  constexpr double kTolerance = 30;
  Lateness lateness;
  std::optional<std::int64_t> day_before;
  for (const StoredSnapshot& snapshot : history) {
    const std::optional<double> late = secondsLate(snapshot, days, day_before);
    day_before = daysSince1970(snapshot.taken_at);
    // One that came before its plan has another: a clock was set.
    if (!late || *late < -kTolerance) continue;
    ++lateness.planned;
    if (*late <= kTolerance) continue;
    ++lateness.late;
    lateness.most_seconds = std::max(lateness.most_seconds, *late);
  }
  return lateness;
}

std::size_t restartsOf(const std::vector<Point>& uptime) {
  constexpr double kSlack = 60;  // of a clock that is set in between
  constexpr double kSaturated = std::numeric_limits<std::int32_t>::max();
  std::size_t restarts = 0;
  for (std::size_t i = 1; i < uptime.size(); ++i) {
    const auto now = static_cast<double>(uptime[i].value);
    const bool is_shorter = uptime[i].value < uptime[i - 1].value;
    const bool began_since = now / 100 + kSlack < uptime[i].at - uptime[i - 1].at;
    if (now < kSaturated && (is_shorter || began_since)) ++restarts;
  }
  return restarts;
}

std::vector<std::pair<std::string, std::string>> figuresOf(const History& history, const Days& days,
                                                           const std::vector<KeyPoints>& keys) {
  const auto find = [&](std::string_view key) -> const std::vector<Point>* {
    const auto found = std::ranges::find(keys, key, &KeyPoints::key);
    return found == keys.end() ? nullptr : &found->points;
  };
  Figures figures;
  if (const auto* capacity = find(snapshot_key::kMaxCapacity)) {
    if (const auto wear = wearOf(*capacity)) addWear(figures, *wear);
  }
  addMissingDays(figures, missingDaysOf(history, days), days);
  addLateness(figures, latenessOf(history, days));
  if (const auto* uptime = find(snapshot_key::kUptime); uptime && uptime->size() > 1) {
    figures.emplace_back("Restarts", "at least " + std::to_string(restartsOf(*uptime)));
  }
  return figures;
}

}  // namespace volorn::ctl
