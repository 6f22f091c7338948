#include "volornctl/open_metrics.h"

#include <gtest/gtest.h>

#include <regex>

#include "snapshot/snapshot_keys.h"

namespace volorn::ctl {
namespace {

using Metrics = std::vector<std::pair<std::string, std::int64_t>>;

// Without the lines that tell of them.
std::string samplesOf(const Metrics& metrics) {
  const std::string text =
      openMetricsText({.taken_at = Date::fromSecondsSince1970(1795406706.75), .metrics = metrics});
  return std::regex_replace(text, std::regex("# (HELP|TYPE) [^\n]*\n"), "");
}

constexpr const char* kEnd = "volorn_snapshot_timestamp_seconds 1795406706.750\n# EOF\n";

TEST(OpenMetricsTest, EveryKeyHasAGaugeInBaseUnits) {
  Metrics metrics;
  for (const std::string_view key : snapshot_key::kAll) metrics.emplace_back(key, 1234);
  EXPECT_EQ(samplesOf(metrics), std::string("volorn_wakeup_time_of_day_seconds 1234\n"
                                            "volorn_planned_time_of_day_seconds 1234\n"
                                            "volorn_next_time_of_day_seconds 1234\n"
                                            "volorn_thermal_level 1234\n"
                                            "volorn_battery_usage_seconds 12.34\n"
                                            "volorn_battery_standby_seconds 12.34\n"
                                            "volorn_battery_fully_charged_once 1234\n"
                                            "volorn_battery_charge_ratio 0.1234\n"
                                            "volorn_battery_max_capacity 1234\n"
                                            "volorn_battery_plugged_in 1234\n"
                                            "volorn_battery_fully_charged 1234\n"
                                            "volorn_backlight_ratio 0.1234\n"
                                            "volorn_uptime_seconds 12.34\n"
                                            "volorn_load1 12.34\n"
                                            "volorn_load5 12.34\n"
                                            "volorn_load15 12.34\n"
                                            "volorn_memory_available_ratio 12.34\n") +
                                    kEnd);
}

TEST(OpenMetricsTest, ValuesAtTheEdgesAndKeysThatHaveNone) {
  struct Case {
    std::string_view key;
    std::int64_t value;
    const char* expected;
  };
  using namespace snapshot_key;
  const Case cases[] = {
      {kUsage, -100, ""},
      {kStandby, -100, ""},
      {kUsage, -99, "volorn_battery_usage_seconds -0.99\n"},
      {kCharged, -10000, "volorn_battery_charge_ratio -1.0000\n"},
      {kBacklight, INT32_MAX, "volorn_backlight_ratio 214748.3647\n"},
      {kUptime, INT64_MIN, "volorn_uptime_seconds -92233720368547758.08\n"},
      {kLoad1, 0, "volorn_load1 0.00\n"},
      {"forged\nvolorn_load1 1", 1, ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(samplesOf({{std::string(c.key), c.value}}), std::string(c.expected) + kEnd) << c.key;
  }
  EXPECT_EQ(samplesOf({{std::string(kLoad1), 1}, {std::string(kLoad1), 2}}),
            std::string("volorn_load1 0.02\n") + kEnd);
}

TEST(OpenMetricsTest, EachGaugeIsToldOf) {
  EXPECT_EQ(openMetricsText({.taken_at = Date::fromSecondsSince1970(0), .metrics = {}}),
            "# HELP volorn_snapshot_timestamp_seconds Time of the snapshot, in seconds since 1970.\n"
            "# TYPE volorn_snapshot_timestamp_seconds gauge\n"
            "volorn_snapshot_timestamp_seconds 0.000\n"
            "# EOF\n");
}

}  // namespace
}  // namespace volorn::ctl
