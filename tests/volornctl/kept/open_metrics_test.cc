#include "volornctl/kept/open_metrics.h"

#include <gtest/gtest.h>

#include <regex>

#include "platform/snapshot_keys.h"

namespace volorn::ctl {
namespace {

using linux_host::StoredSnapshot;

StoredSnapshot snapshotOf(decltype(StoredSnapshot::metrics) metrics) {
  return {.taken_at = Date::fromSecondsSince1970(1795406706.75), .metrics = std::move(metrics)};
}

// Without the lines that tell of them.
std::string samplesOf(const StoredSnapshot& snapshot) {
  return std::regex_replace(openMetricsText(snapshot), std::regex("# (HELP|TYPE) [^\n]*\n"), "");
}

const std::string kTime = "volorn_snapshot_timestamp_seconds 1795406706.750\n# EOF\n";

TEST(OpenMetricsTest, EachReadingThatWasHadHasAGaugeInBaseUnits) {
  constexpr const char* kSamples[] = {"volorn_wakeup_time_of_day_seconds 1234\n",
                                      "volorn_planned_time_of_day_seconds 1234\n",
                                      "volorn_next_time_of_day_seconds 1234\n",
                                      "volorn_thermal_level 1234\n",
                                      "volorn_battery_usage_seconds 12.34\n",
                                      "volorn_battery_standby_seconds 12.34\n",
                                      "volorn_battery_fully_charged_once 1234\n",
                                      "volorn_battery_charge_ratio 0.1234\n",
                                      "volorn_battery_max_capacity 1234\n",
                                      "volorn_battery_plugged_in 1234\n",
                                      "volorn_battery_fully_charged 1234\n",
                                      "volorn_backlight_ratio 0.1234\n",
                                      "volorn_uptime_seconds 12.34\n",
                                      "volorn_load1 12.34\n",
                                      "volorn_load5 12.34\n",
                                      "volorn_load15 12.34\n",
                                      "volorn_memory_available_ratio 12.34\n"};
  StoredSnapshot had = snapshotOf({});
  std::string expected;
  std::string before;
  for (std::size_t i = 0; i < std::size(kSamples); ++i) {
    const std::string key(snapshot_key::kAll[i]);
    had.metrics.emplace_back(key, 1234);
    expected += kSamples[i];
    StoredSnapshot without = had;
    without.unknown = {key};
    EXPECT_EQ(samplesOf(without), before + kTime) << key;
    before = expected;
  }
  EXPECT_EQ(samplesOf(had), expected + kTime);
}

TEST(OpenMetricsTest, ValuesAtTheEdgesAndKeysThatHaveNone) {
  using namespace snapshot_key;
  const struct {
    decltype(StoredSnapshot::metrics) metrics;
    const char* expected;
  } cases[] = {
      {{{std::string(kUsage), -99}}, "volorn_battery_usage_seconds -0.99\n"},
      {{{std::string(kBacklight), INT32_MAX}}, "volorn_backlight_ratio 214748.3647\n"},
      {{{std::string(kUptime), INT64_MIN}}, "volorn_uptime_seconds -92233720368547758.08\n"},
      {{{std::string(kLoad1), 1}, {std::string(kLoad1), 0}}, "volorn_load1 0.00\n"},
      {{{"forged\nvolorn_load1 1", 1}}, ""},
  };
  for (const auto& c : cases) EXPECT_EQ(samplesOf(snapshotOf(c.metrics)), c.expected + kTime);
  EXPECT_EQ(openMetricsText(snapshotOf({})),
            "# HELP volorn_snapshot_timestamp_seconds Time of the snapshot, in seconds since 1970.\n"
            "# TYPE volorn_snapshot_timestamp_seconds gauge\n" +
                kTime);
}

}  // namespace
}  // namespace volorn::ctl
