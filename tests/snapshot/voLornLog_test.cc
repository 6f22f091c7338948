#include "snapshot/voLornLog.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <map>

#include "platform/fake/fake_host.h"
#include "snapshot/snapshot_keys.h"

namespace volorn {
namespace {

using Written = std::vector<std::pair<std::string, std::int64_t>>;

DateRef dateAt(double seconds_since_1970) {
  return std::make_shared<const Date>(Date::fromSecondsSince1970(seconds_since_1970));
}

PropertyValue number(std::int64_t value) {
  return PropertyValue{value};
}

PropertyTable powerSource(std::int64_t current, std::int64_t max) {
  return {{"CurrentCapacity", number(current)}, {"MaxCapacity", number(max)}};
}

PropertyTable backlight(const PropertyTable& brightness) {
  return {
      {std::string(kDisplayParametersProperty), PropertyValue{PropertyTable{{"brightness", {brightness}}}}}};
}

// Every reading has a value of its own, so that a key written from another reading shows.
struct HostWithEveryReading : fake::FakeHost {
  HostWithEveryReading() {
    clock.seconds_since_1970 = 20000.0 * 86400 + 45296;  // 12:34:56
    thermal.level = -4;
    battery_usage.times = {
        .usage_seconds = 0.29F, .standby_seconds = 1.15F, .fully_charged_once = 200, .flag_b = 77};
    power_source_capacity(1500, 1600);
    state_notifier.states = {{"com.zorvik.quenby.pluggedin", 0x1'0000'0001},
                             {"com.zorvik.quenby.fullycharged", 0xFFFF'FFFE}};
    device_registry.backlight = backlight({{"value", number(7)}, {"min", number(3)}, {"max", number(11)}});
    uptime.seconds = 1234.567;
    kernel.load_averages = {0.125, 2.5, 40.0};
    kernel.system_values = {{"kern.memorystatus_level", 61}};
  }

  void power_source_capacity(std::int64_t current, std::int64_t max) {
    device_registry.power_source = powerSource(current, max);
  }
};

Written snapshotOf(fake::FakeHost& host, const DateRef& planned, DateRef next,
                   WakeupStatus status = WakeupStatusOnTime) {
  const Services services = host.services();
  const ScopedServices scoped(services);
  voLornLog::init()->writeKeysWithStatusAndPlannedWakeupTimeAndNextPlannedWakeupTime(status, planned,
                                                                                     std::move(next));
  return host.metric_store.written;
}

Written fullSnapshotOf(fake::FakeHost& host) {
  return snapshotOf(host, dateAt(86399), dateAt(86400 * 3 + 61));
}

TEST(VoLornLogTest, EachReadingLandsUnderItsKeyInOrder) {
  HostWithEveryReading host;
  const Written expected = {
      {"com.zorvik.snapshot.wakeupSecsSinceMidnight", 45296},
      {"com.zorvik.snapshot.plannedSecsSinceMidnight", 86399},
      {"com.zorvik.snapshot.nextSecsSinceMidnight", 61},
      {"com.zorvik.snapshot.thermalLevel", -4},
      {"com.zorvik.snapshot.battery.usageSecs100x", 29},  // 28 if the product were formed in doubles
      {"com.zorvik.snapshot.battery.standbySecs100x", 115},
      {"com.zorvik.snapshot.battery.fullyChargedOnce", 200},
      {"com.zorvik.snapshot.battery.chargedPct100x", 9375},
      {"com.zorvik.snapshot.battery.maxCapacity", 1600},
      {"com.zorvik.snapshot.battery.pluggedIn", 1},
      {"com.zorvik.snapshot.battery.fullyCharged", -2},
      {"com.zorvik.snapshot.backlightLevel100x", 5000},
      {"com.zorvik.snapshot.uptime.Secs100x", 123456},
      {"com.zorvik.snapshot.uptime.load1Min100x", 12},
      {"com.zorvik.snapshot.uptime.load5Min100x", 250},
      {"com.zorvik.snapshot.uptime.load15Min100x", 4000},
      {"com.zorvik.snapshot.jetsamLevel", 61},
  };
  EXPECT_EQ(fullSnapshotOf(host), expected);
}

TEST(VoLornLogTest, StatusChangesNothing) {
  HostWithEveryReading on_time;
  HostWithEveryReading too_late;
  EXPECT_EQ(snapshotOf(on_time, nullptr, nullptr, WakeupStatusOnTime),
            snapshotOf(too_late, nullptr, nullptr, WakeupStatusTooLate));
}

TEST(VoLornLogTest, NoPlanLeavesItsKeyOutAndNoNextPlanIsZero) {
  HostWithEveryReading host;
  const Written written = snapshotOf(host, nullptr, nullptr);
  ASSERT_EQ(written.size(), 16U);
  EXPECT_EQ(written[1],
            (std::pair<std::string, std::int64_t>("com.zorvik.snapshot.nextSecsSinceMidnight", 0)));
}

TEST(VoLornLogTest, AskedReadingsInOrder) {
  HostWithEveryReading host;
  fullSnapshotOf(host);
  fake::CallJournal readings;
  for (const std::string& call : host.calls) {
    if (!call.starts_with("setScalarValue")) readings.push_back(call);
  }
  EXPECT_EQ(readings, (fake::CallJournal{
                          "now", "CurrentThermalLevel", "ShellServerPort", "BatteryUsageTimes shell port",
                          "findServiceOfClass PowerSource", "copyProperty MaxCapacity",
                          "copyProperty CurrentCapacity", "registerCheck com.zorvik.quenby.pluggedin",
                          "getState", "registerCheck com.zorvik.quenby.fullycharged", "getState",
                          "findServiceMatching", "copyProperty DisplayParameters", "UptimeSeconds",
                          "getloadavg 3", "sysctlbyname kern.memorystatus_level"}));
}

// What one reading's failure or extreme changes in the full snapshot: the new value of a key, or its absence.
struct Change {
  const char* what;
  std::function<void(HostWithEveryReading&)> change;
  std::map<std::string_view, std::optional<std::int64_t>> keys;
};

const Change kChanges[] = {
    {"no battery usage query",
     [](auto& host) { host.battery_usage.times.reset(); },
     {{snapshot_key::kUsage, -100}, {snapshot_key::kStandby, -100}, {snapshot_key::kFullyChargedOnce, 0}}},
    {"no power source",
     [](auto& host) { host.device_registry.power_source.reset(); },
     {{snapshot_key::kCharged, std::nullopt}, {snapshot_key::kMaxCapacity, std::nullopt}}},
    {"no maximum",
     [](auto& host) {
       host.device_registry.power_source = {{"CurrentCapacity", number(5)}};
     },
     {{snapshot_key::kCharged, -10000}, {snapshot_key::kMaxCapacity, std::nullopt}}},
    {"no current charge",
     [](auto& host) {
       host.device_registry.power_source = {{"MaxCapacity", number(5)}};
     },
     {{snapshot_key::kCharged, std::nullopt}, {snapshot_key::kMaxCapacity, 5}}},
    {"a third is truncated",
     [](auto& host) { host.power_source_capacity(1, 3); },
     {{snapshot_key::kCharged, 3333}, {snapshot_key::kMaxCapacity, 3}}},
    {"empty maximum",
     [](auto& host) { host.power_source_capacity(0, 0); },
     {{snapshot_key::kCharged, 0}, {snapshot_key::kMaxCapacity, 0}}},
    {"maximum beyond 32 bits",
     [](auto& host) { host.power_source_capacity(1'500'000'000, 3'000'000'000); },
     {{snapshot_key::kCharged, 5000}, {snapshot_key::kMaxCapacity, 2147483647}}},
    {"no states",
     [](auto& host) { host.state_notifier.states.clear(); },
     {{snapshot_key::kPluggedIn, 0}, {snapshot_key::kFullyCharged, 0}}},
    {"no backlight",
     [](auto& host) { host.device_registry.backlight.reset(); },
     {{snapshot_key::kBacklight, 0}}},
    {"empty brightness",
     [](auto& host) { host.device_registry.backlight = backlight({}); },
     {{snapshot_key::kBacklight, 0}}},
    {"brightness without bounds",
     [](auto& host) {
       host.device_registry.backlight = backlight({{"value", number(9)}});
     },
     {{snapshot_key::kBacklight, 2147483647}}},
    {"brightness below equal bounds",
     [](auto& host) {
       host.device_registry.backlight =
           backlight({{"value", number(-9)}, {"min", number(4)}, {"max", number(4)}});
     },
     {{snapshot_key::kBacklight, -2147483648}}},
    {"brightness whose differences wrap",
     [](auto& host) {
       host.device_registry.backlight =
           backlight({{"value", number(INT64_MIN)}, {"min", number(1)}, {"max", number(INT64_MIN)}});
     },
     {{snapshot_key::kBacklight, 10000}}},
    {"uptime beyond 32 bits",
     [](auto& host) { host.uptime.seconds = 21474836.48; },
     {{snapshot_key::kUptime, 2147483647}}},
    {"two load averages",
     [](auto& host) { host.kernel.load_averages_result = 2; },
     {{snapshot_key::kLoad15, std::nullopt}}},
    {"no load average",
     [](auto& host) { host.kernel.load_averages_result = 0; },
     {{snapshot_key::kLoad1, std::nullopt},
      {snapshot_key::kLoad5, std::nullopt},
      {snapshot_key::kLoad15, std::nullopt}}},
    {"load averages fail",
     [](auto& host) { host.kernel.load_averages_result = -1; },
     {{snapshot_key::kLoad1, std::nullopt},
      {snapshot_key::kLoad5, std::nullopt},
      {snapshot_key::kLoad15, std::nullopt}}},
    {"no memory level",
     [](auto& host) { host.kernel.system_values.clear(); },
     {{snapshot_key::kJetsamLevel, 0}}},
};

TEST(VoLornLogTest, AFailedReadingChangesItsOwnKeysAlone) {
  HostWithEveryReading whole;
  const Written unchanged = fullSnapshotOf(whole);
  for (const auto& [what, change, keys] : kChanges) {
    SCOPED_TRACE(what);
    HostWithEveryReading host;
    change(host);
    Written expected;
    for (const auto& [key, value] : unchanged) {
      const auto changed = keys.find(key);
      const auto now = changed == keys.end() ? value : changed->second;
      if (now) expected.emplace_back(key, *now);
    }
    EXPECT_EQ(fullSnapshotOf(host), expected);
  }
}

TEST(VoLornLogTest, TimesOfDayAreTheLocalClocks) {
  HostWithEveryReading host;
  host.local_calendar.seconds_east_of_utc = -3600;
  const Written written = fullSnapshotOf(host);
  EXPECT_EQ(written[0].second, 45296 - 3600);
  EXPECT_EQ(written[2].second, 86400 + 61 - 3600);
}

TEST(VoLornLogTest, KeysStandInTheOrderWritten) {
  HostWithEveryReading host;
  const Written written = fullSnapshotOf(host);
  ASSERT_EQ(written.size(), snapshot_key::kAll.size());
  for (std::size_t i = 0; i < written.size(); ++i) EXPECT_EQ(written[i].first, snapshot_key::kAll[i]);
}

}  // namespace
}  // namespace volorn
