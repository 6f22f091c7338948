#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/state/state_reader.h"
#include "volornctl/text/graph.h"

namespace volorn::ctl {

// Snapshots, the oldest first.
using History = std::vector<linux_host::StoredSnapshot>;

// UTC days since 1970, both ends included.
struct Days {
  std::int64_t first = 0;
  std::int64_t last = 0;

  std::size_t count() const { return static_cast<std::size_t>(last - first + 1); }
};

// The days that snapshots were taken on. What a clock has taken before 2001, which is where one starts that
// nobody has set, or more than two days ahead of now is on no axis. None where no day is left.
std::optional<Days> daysOf(const History& history, const Date& now);

// A reading that was had, and that can be one: no 300 percent. Yes is 1.
struct Point {
  std::int64_t day = 0;  // UTC, since 1970
  double at = 0;         // seconds since 1970
  std::int64_t value = 0;
};

// Of one key, within the days, the earliest first.
struct KeyPoints {
  std::string key;
  std::vector<Point> points;
};

// Every key in the order of the newest snapshot that holds it.
std::vector<KeyPoints> pointsOf(const History& history, const Days& days);

// As stored. Of no points there is none.
struct Spread {
  std::int64_t least = 0;
  double mean = 0;
  std::int64_t most = 0;
};
std::optional<Spread> spreadOf(const std::vector<Point>& points);

// What people are told of a number that is stored under the key, or computed from such: with its unit where
// it has one.
std::string figureText(const std::string& key, std::int64_t value);
std::string meanText(const std::string& key, double mean);

// By what the key means: percents from 0 to 100, levels from 0 to 4, times of day from midnight to midnight.
// Everything else reaches from 0 to the greatest value, and below 0 where the least one does.
Axis axisOf(const std::string& key, const Spread& spread);

// Full capacity against the first and the greatest one seen.
struct Wear {
  std::int64_t first = 0;
  std::int64_t greatest = 0;
  std::int64_t newest = 0;
  std::optional<double> percent_of_greatest_per_year;  // none for less than 90 days
};
// None where the battery tells percents alone.
std::optional<Wear> wearOf(const std::vector<Point>& capacity);

// UTC days from the first snapshot to the last that have none.
struct MissingDays {
  std::size_t count = 0;
  Days longest;  // of those in a row; none for a count of 0
};
MissingDays missingDaysOf(const History& history, const Days& days);

// Starts that came more than 30 seconds after the plan. The plan's day is known where the day before has a
// snapshot or some earlier one, which planned for the day that followed it.
struct Lateness {
  std::size_t planned = 0;  // starts whose plan is known
  std::size_t late = 0;
  double most_seconds = 0;
};
Lateness latenessOf(const History& history, const Days& days);

// How often the system was started between snapshots, at least: once for each pair of neighbours whose later
// one has been up for less than the time between them.
std::size_t restartsOf(const std::vector<Point>& uptime);

// These figures in words, with what each is called; only those that the history's keys give.
std::vector<std::pair<std::string, std::string>> figuresOf(const History& history, const Days& days,
                                                           const std::vector<KeyPoints>& keys);

}  // namespace volorn::ctl
