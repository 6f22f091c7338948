#include <gtest/gtest.h>

#include <tuple>

#include "platform/snapshot_keys.h"
#include "volornctl/kept/key_meaning.h"
#include "volornctl/kept/metrics.h"
#include "volornctl/kept/status.h"

namespace volorn::ctl {
namespace {

constexpr double kNow = 1795406706.0;  // 2026-11-23 04:05:06 UTC

Date fromNow(double seconds) {
  return Date::fromSecondsSince1970(kNow + seconds);
}

const Moment kMoment = {.now = fromNow(0), .time_zone = [](std::int64_t) { return ZoneOffset{3600, "CET"}; }};

TEST(StatusTest, Table) {
  const Status full = {.state_file = "/var/lib/volorn/volorn.db",
                       .next_planned_wakeup_time = fromNow(48000.5),
                       .last_wakeup_time = fromNow(-123),
                       .last_log_dumped_day_since_1970 = 20779,
                       .job = Status::Window{.start = fromNow(48000.5), .end = fromNow(48000.5 + 604800)},
                       .last_snapshot_at = fromNow(-123),
                       .verdict = Verdict::kFine};
  EXPECT_EQ(
      statusTable(full, kMoment, false),
      "Verdict               fine: a snapshot was taken within 49 hours\n"
      "State file            /var/lib/volorn/volorn.db\n"
      "Next planned wake-up  2026-11-23 17:25:06 UTC (2026-11-23 18:25:06 CET), in 13 h 20 min\n"
      "Last wake-up          2026-11-23 04:03:03 UTC (2026-11-23 05:03:03 CET), 2 min 3 s ago\n"
      "Last snapshot         2026-11-23 04:03:03 UTC (2026-11-23 05:03:03 CET), 2 min 3 s ago\n"
      "Its day               2026-11-22 (UTC day 20779)\n"
      "Job window            2026-11-23 17:25:06 UTC to 2026-11-30 17:25:06 UTC, opens in 13 h 20 min\n");
  EXPECT_EQ(statusTable({.state_file = "/s\n", .last_log_dumped_day_since_1970 = INT64_MAX}, kMoment, false),
            "Verdict               cannot be told\n"
            "State file            /s\\u{a}\n"
            "Next planned wake-up  none\n"
            "Last wake-up          none\n"
            "Last snapshot         none\n"
            "Its day               beyond the calendar (UTC day 9223372036854775807)\n"
            "Job window            none\n");
}

TEST(StatusTest, TheJobsWindowIsToldAsItStandsNow) {
  const auto windowLine = [](double start, double end) {
    const std::string text = statusTable(
        {.state_file = "/s", .job = Status::Window{fromNow(start), fromNow(end)}}, kMoment, false);
    return text.substr(text.find(", ") + 2);
  };
  EXPECT_EQ(windowLine(1, 604801), "opens in 1 s\n");
  EXPECT_EQ(windowLine(0, 604800), "open, ends in 7 d\n");
  EXPECT_EQ(windowLine(-604800, 0), "ended now\n");
  EXPECT_EQ(windowLine(-700000, -3600), "ended 1 h ago\n");
}

TEST(MetricsTest, ReadingsHaveTheirUnits) {
  using namespace snapshot_key;
  const std::tuple<std::string_view, std::int64_t, const char*> cases[] = {
      {kWakeup, 45296, "12:34:56"},
      {kPlanned, 86399, "23:59:59"},
      {kNext, 86400, ""},
      {kThermalLevel, 4, "critical"},
      {kThermalLevel, 5, ""},
      {kUsage, 29, "0.29 s"},
      {kStandby, 6000, "1 min"},
      {kFullyChargedOnce, -200, "yes"},
      {kCharged, 9375, "93.75 %"},
      {kFullyCharged, 0, "no"},
      {kBacklight, 5, "0.05 %"},
      {kUptime, -100, "-1.00 s"},  // a value like any other here
      {kUptime, INT32_MAX, "at least 248 d 13 h"},
      {kLoad5, -7, "-0.07"},
      {kLoad15, INT64_MIN, "-92233720368547758.08"},
      {kJetsamLevel, 61, "61 %"},
      {"com.zorvik.snapshot.unheardOf", 1, ""},
  };
  for (const auto& [key, value, expected] : cases) EXPECT_EQ(reading(key, value), expected) << key << value;
}

}  // namespace
}  // namespace volorn::ctl
