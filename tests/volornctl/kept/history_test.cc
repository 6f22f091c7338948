#include <gtest/gtest.h>

#include <cmath>

#include "platform/snapshot_keys.h"
#include "volornctl/kept/figures.h"
#include "volornctl/kept/history_text.h"
#include "volornctl/kept/report.h"
#include "volornctl/kept/report_chart.h"
#include "volornctl/text/day_axis.h"
#include "volornctl/text/graph.h"

namespace volorn::ctl {
namespace {

TEST(GraphTest, ABlockOrABarForEachValue) {
  const Series series = {0, 1, 2, 3, 4, 5, 6, 7, std::nullopt, -9, 1e300};
  EXPECT_EQ(graph(series, {0, 7}), "▁▂▃▄▅▆▇█ ▁█");
  EXPECT_EQ(graph({7, std::nullopt}, {7, 7}), "▁ ");
  using Bars = std::vector<std::string>;
  EXPECT_EQ(bars({16, 1, std::nullopt, 0, 9}, {0, 16}, 2), (Bars{"██", "▏", "", "", "█▏"}));
  EXPECT_EQ(bars({-8, 0, 8}, {-8, 8}, 2), (Bars{"", "█", "██"}));
  EXPECT_EQ(bars({0, 1}, {0, 1}, 0), (Bars{"", ""}));
}

TEST(DayAxisTest, TheYearIsToldWhereItChanges) {
  struct Case {
    std::int64_t first_day, last_day;
    std::size_t columns;
    const char* line;
  };
  constexpr std::int64_t kDay = 20780;  // 2026-11-23, a Monday
  const Case cases[] = {
      {kDay, kDay, 1, "2026-11-23"},
      {kDay, kDay + 41, 42, "2026-11-23    12-07  12-14  12-21  12-28"},
      {kDay, kDay + 69, 70, "2026-11-23    12-07  12-14  12-21  12-28  2027-01-04    01-18  01-25"},
      {kDay - 400, kDay, 60, "           Jan 2026     Apr           Jul          Oct"},
      {kDay - 4000, kDay, 60, "2016       2018       2020       2022       2024       2026"},
      {kDay, kDay + 9, 0, "2026-11-23"},
      {-719528, 2932896, 30, ""},
  };
  for (const Case& c : cases) EXPECT_EQ(axisLine(c.first_day, c.last_day, c.columns), c.line);
}

constexpr double kFirst = 1795406706.0;  // 2026-11-23 04:05:06 UTC

linux_host::StoredSnapshot snapshot(double day,
                                    std::vector<std::pair<std::string_view, std::int64_t>> metrics,
                                    std::vector<std::string> unknown = {}) {
  return {.taken_at = Date::fromSecondsSince1970(kFirst + day * 86400),
          .metrics = {metrics.begin(), metrics.end()},
          .unknown = std::move(unknown)};
}

std::vector<Point> pointsOfDays(const std::vector<std::pair<std::int64_t, std::int64_t>>& values) {
  std::vector<Point> points;
  for (const auto& [day, value] : values) {
    points.push_back({.day = day, .at = static_cast<double>(day) * 86400, .value = value});
  }
  return points;
}

TEST(FiguresTest, WhatWasNotKnownOrCannotBeIsNoPoint) {
  using namespace snapshot_key;
  const History history = {
      snapshot(0, {{kCharged, 0}, {kPluggedIn, 7}}, {std::string(kCharged)}),
      snapshot(2, {{kCharged, 5000}, {kThermalLevel, 5}}),
      snapshot(1, {{kCharged, 10001}}),
      snapshot(-9999, {{kCharged, 1}}),  // a clock that nobody had set
      snapshot(9, {{kCharged, 1}}),      // and one that was wrong
  };
  const auto days = daysOf(history, Date::fromSecondsSince1970(kFirst));
  ASSERT_TRUE(days);
  EXPECT_EQ(days->count(), 3U);
  for (const auto& [key, points] : pointsOf(history, *days)) {
    ASSERT_EQ(points.size(), key == kThermalLevel ? 0U : 1U) << key;
    for (const Point& point : points) EXPECT_EQ(point.value, key == kCharged ? 5000 : 1) << key;
  }
  EXPECT_FALSE(daysOf({history[3], history[4]}, Date::fromSecondsSince1970(kFirst)));
}

TEST(FiguresTest, WearIsNotMovedByADaysMisreading) {
  std::vector<std::pair<std::int64_t, std::int64_t>> values;
  for (int day = 0; day <= 730; ++day) values.emplace_back(day, day % 20 == 5 ? 1 : 10'000'000 - 1000 * day);
  values.emplace_back(731, 0);
  const auto wear = wearOf(pointsOfDays(values));
  ASSERT_TRUE(wear && wear->percent_of_greatest_per_year);
  EXPECT_EQ(wear->first, 10'000'000);
  EXPECT_EQ(wear->newest, 10'000'000 - 730'000);
  EXPECT_NEAR(*wear->percent_of_greatest_per_year, -3.65, 0.1);
  EXPECT_FALSE(wearOf(pointsOfDays({{0, 50'000}, {89, 40'000}}))->percent_of_greatest_per_year);
  EXPECT_FALSE(wearOf(pointsOfDays({{0, 100}, {900, 100}})));  // percents alone
}

// Of a device so far east of UTC, started `late` seconds after a plan of the given UTC time of day.
linux_host::StoredSnapshot started(double day, std::int64_t east, std::int64_t plan, double late) {
  const double plan_at = (std::floor(kFirst / 86400) + day) * 86400 + static_cast<double>(plan);
  const auto local = [&](std::int64_t seconds) { return ((seconds + east) % 86400 + 86400) % 86400; };
  return {.taken_at = Date::fromSecondsSince1970(plan_at + late),
          .metrics = {{std::string(snapshot_key::kWakeup), local(static_cast<std::int64_t>(plan_at + late))},
                      {std::string(snapshot_key::kPlanned), local(plan)}}};
}

TEST(FiguresTest, LatenessCrossesMidnightsAndZones) {
  struct Case {
    std::int64_t east, plan;
    double late, expected;  // 0: on time
  };
  const Case cases[] = {
      {0, 100, 29.5, 0},     {0, 86399, 30.5, 30},         {7200, 80000, 3600, 3600},
      {-34200, 100, 90, 90}, {20700, 86000, 86400, 86400}, {-3600, 10, 5 * 86400 + 7, 5 * 86400 + 7},
  };
  for (const Case& c : cases) {
    const History history = {started(0, 0, 100, 0), started(1, c.east, c.plan, c.late)};
    const Days days = {.first = 0, .last = 99'999};
    const Lateness lateness = latenessOf(history, days);
    EXPECT_EQ(lateness.planned, 1U) << c.late;
    EXPECT_EQ(lateness.late, c.expected > 0 ? 1U : 0U) << c.late;
    EXPECT_NEAR(lateness.most_seconds, c.expected, 1) << c.late;
  }
}

TEST(FiguresTest, RestartsAndDaysWithout) {
  const std::vector<Point> uptime = pointsOfDays({{0, 50'000 * 100},
                                                  {1, 136'400 * 100},
                                                  {2, 3600 * 100},
                                                  {5, 86'400 * 100},
                                                  {400, INT32_MAX},
                                                  {401, INT32_MAX}});
  EXPECT_EQ(restartsOf(uptime), 2U);
  const History history = {snapshot(0, {}), snapshot(1, {}), snapshot(1.1, {}), snapshot(5, {}),
                           snapshot(7, {})};
  const MissingDays missing =
      missingDaysOf(history, *daysOf(history, Date::fromSecondsSince1970(kFirst + 1e6)));
  EXPECT_EQ(missing.count, 4U);
  EXPECT_EQ(missing.longest.first, 20782);
  EXPECT_EQ(missing.longest.last, 20784);
}

TEST(HistoryTest, ALongNameLeavesTheGraphsTheirRoom) {
  const History history = {snapshot(0, {{std::string(3000, 'x'), 1}, {"y", 1}})};
  const HistoryView view = {.now = history[0].taken_at, .time_zone = nullptr, .max_columns = 80};
  EXPECT_NE(historyOfKeys(history, view).find("█"), std::string::npos);
}

TEST(ReportTest, ALineBreaksAtGapsAndKeepsWhatReachesFarthest) {
  struct Case {
    std::vector<std::pair<std::int64_t, std::int64_t>> values;
    const char* path;
  };
  const Case cases[] = {
      {{}, ""},
      {{{0, 0}}, "M0 100h0"},
      {{{0, 0}, {1, 100}, {4, 50}, {9, 7000}}, "M0 100L1 0M4 50h0M9 0h0"},
      {{{5, -5}, {6, 25}, {8, 1}, {9, 2}}, "M5 100L6 75M8 99L9 98"},
  };
  for (const Case& c : cases) EXPECT_EQ(linePath(pointsOfDays(c.values), {0, 9}, {0, 100}, 10, 100), c.path);
  std::vector<std::pair<std::int64_t, std::int64_t>> dense;
  for (int day = 0; day < 100; ++day) dense.emplace_back(day, day == 42 ? 100 : day == 47 ? 0 : 50);
  EXPECT_EQ(linePath(pointsOfDays(dense), {0, 99}, {0, 100}, 2, 100), "M0 50L0 0L0 100L0 50L1 50L1 50");
}

TEST(ReportTest, LabelsThatWouldTouchOnAPhoneAreLeftOut) {
  const std::string key(snapshot_key::kCharged);
  const std::string figure =
      chartFigure(*meaningOf(key), {key, pointsOfDays({{20751, 1}, {20780, 2}})}, {20751, 20780});
  EXPECT_EQ(figure.find(">11-02</span>"), figure.npos);
  EXPECT_NE(figure.find("100% + .8rem - 5ch)\">11-23</span>"), figure.npos);
}

TEST(ReportTest, WhatAStateFileHoldsStaysText) {
  History history = {snapshot(0, {{"</td><script>alert(1)</script>&'\"\xff", 1}})};
  for (int i = 0; i < 100'000; ++i)
    history[0].metrics.emplace_back(std::to_string(i) + std::string(500, 'x'), i);
  const std::string page = reportPage(history, std::nullopt, Date::fromSecondsSince1970(kFirst));
  EXPECT_NE(page.find("&lt;/td&gt;&lt;script&gt;alert(1)&lt;/script&gt;&amp;&#39;&quot;\\xff"), page.npos);
  EXPECT_NE(page.find("<th scope=\"row\">Others</th><td>99961</td>"), page.npos);
  EXPECT_LT(page.size(), 20'000U);
  history[0].taken_at = Date::fromSecondsSinceReferenceDate(1e300);
  EXPECT_NE(
      reportPage(history, Verdict::kClock, Date::fromSecondsSince1970(kFirst)).find("beyond the calendar"),
      page.npos);
}

}  // namespace
}  // namespace volorn::ctl
