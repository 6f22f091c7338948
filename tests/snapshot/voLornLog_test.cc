#include "snapshot/voLornLog.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "platform/fake/fake_host.h"
#include "platform/snapshot_keys.h"

namespace volorn {
namespace {

DateRef dateAt(double seconds_since_1970) {
  return std::make_shared<const Date>(Date::fromSecondsSince1970(seconds_since_1970));
}

// Every reading has a value of its own, so that a key written from another reading shows.
struct Host : fake::FakeHost {
  Host() {
    clock.seconds_since_1970 = 20000.0 * 86400 + 45296;  // 12:34:56
    thermal.level = -4;
    battery_usage.times = {
        .usage_seconds = 0.29F, .standby_seconds = 1.15F, .fully_charged_once = 200, .flag_b = 77};
    battery({{"CurrentCapacity", 1500}, {"MaxCapacity", 1600}});
    state_notifier.states = {{"com.zorvik.quenby.pluggedin", 0x1'0000'0001},
                             {"com.zorvik.quenby.fullycharged", 0xFFFF'FFFE}};
    brightness({{"value", 7}, {"min", 3}, {"max", 11}});
    uptime.seconds = 1234.567;
    kernel.load_averages = {0.125, 2.5, 40.0};
    kernel.system_values = {{"kern.memorystatus_level", 61}};
  }

  using Numbers = std::vector<std::pair<const char*, std::int64_t>>;
  static PropertyTable table(const Numbers& numbers) {
    PropertyTable properties;
    for (const auto& [key, number] : numbers) properties.set(key, PropertyValue{number});
    return properties;
  }
  void battery(const Numbers& numbers) { device_registry.power_source = table(numbers); }
  void brightness(const Numbers& numbers) {
    const PropertyTable parameters{{"brightness", {table(numbers)}}};
    device_registry.backlight = {{std::string(kDisplayParametersProperty), PropertyValue{parameters}}};
  }

  DateRef planned = dateAt(86399);
  DateRef next = dateAt(86400 * 3 + 61);
  WakeupStatus status = WakeupStatusOnTime;
};

// Where `other` is given: what differs from it.
std::string snapshotOf(Host& host, Host* other = nullptr) {
  const Services services = host.services();
  {
    const ScopedServices scoped(services);
    voLornLog::init()->writeKeysWithStatusAndPlannedWakeupTimeAndNextPlannedWakeupTime(
        host.status, host.planned, host.next);
  }
  const auto& written = host.metric_store.written;
  std::size_t at = 0;
  std::string text;
  for (std::size_t i = 0; i < snapshot_key::kAll.size(); ++i) {
    const std::string_view key = snapshot_key::kAll[i];
    const bool is_written = at < written.size() && written[at].first == key;
    const std::string value = is_written ? std::to_string(written[at++].second) : "none";
    if (other && value == std::to_string(other->metric_store.written.at(i).second)) continue;
    text += std::string(key.substr(snapshot_key::kPrefix.size())) + "=" + value + " ";
  }
  EXPECT_EQ(at, written.size()) << "another key, or out of order";
  return text;
}

TEST(VoLornLogTest, EachReadingLandsUnderItsKeyInOrder) {
  Host host;
  // usageSecs100x would be 28 if the product were formed in doubles.
  EXPECT_EQ(
      snapshotOf(host),
      "wakeupSecsSinceMidnight=45296 plannedSecsSinceMidnight=86399 nextSecsSinceMidnight=61 thermalLevel=-4 "
      "battery.usageSecs100x=29 battery.standbySecs100x=115 battery.fullyChargedOnce=200 "
      "battery.chargedPct100x=9375 battery.maxCapacity=1600 battery.pluggedIn=1 battery.fullyCharged=-2 "
      "backlightLevel100x=5000 uptime.Secs100x=123456 uptime.load1Min100x=12 uptime.load5Min100x=250 "
      "uptime.load15Min100x=4000 jetsamLevel=61 ");
}

// What an argument, or one reading's failure or extreme, changes in the full snapshot.
struct Change {
  const char* what;
  std::function<void(Host&)> change;
  std::string keys;
};

std::function<void(Host&)> batteryOf(Host::Numbers numbers) {
  return [=](Host& host) { host.battery(numbers); };
}

std::function<void(Host&)> brightnessOf(Host::Numbers numbers) {
  return [=](Host& host) { host.brightness(numbers); };
}

const std::string kNoLoads = "uptime.load1Min100x=none uptime.load5Min100x=none uptime.load15Min100x=none ";

const Change kChanges[] = {
    {"status", [](auto& host) { host.status = WakeupStatusTooLate; }, ""},
    {"no plan", [](auto& host) { host.planned = nullptr; }, "plannedSecsSinceMidnight=none "},
    {"no next plan", [](auto& host) { host.next = nullptr; }, "nextSecsSinceMidnight=0 "},
    {"local clock", [](auto& host) { host.local_calendar.seconds_east_of_utc = -3600; },
     "wakeupSecsSinceMidnight=41696 plannedSecsSinceMidnight=82799 nextSecsSinceMidnight=82861 "},
    {"no battery usage query", [](auto& host) { host.battery_usage.times.reset(); },
     "battery.usageSecs100x=-100 battery.standbySecs100x=-100 battery.fullyChargedOnce=0 "},
    {"no power source", [](auto& host) { host.device_registry.power_source.reset(); },
     "battery.chargedPct100x=none battery.maxCapacity=none "},
    {"no maximum", batteryOf({{"CurrentCapacity", 5}}),
     "battery.chargedPct100x=-10000 battery.maxCapacity=none "},
    {"no current charge", batteryOf({{"MaxCapacity", 5}}),
     "battery.chargedPct100x=none battery.maxCapacity=5 "},
    {"a third is truncated", batteryOf({{"CurrentCapacity", 1}, {"MaxCapacity", 3}}),
     "battery.chargedPct100x=3333 battery.maxCapacity=3 "},
    {"maximum beyond 32 bits",
     batteryOf({{"CurrentCapacity", 1'500'000'000}, {"MaxCapacity", 3'000'000'000}}),
     "battery.chargedPct100x=5000 battery.maxCapacity=2147483647 "},
    {"no states", [](auto& host) { host.state_notifier.states.clear(); },
     "battery.pluggedIn=0 battery.fullyCharged=0 "},
    {"no backlight", [](auto& host) { host.device_registry.backlight.reset(); }, "backlightLevel100x=0 "},
    {"empty brightness", brightnessOf({}), "backlightLevel100x=0 "},
    {"brightness without bounds", brightnessOf({{"value", 9}}), "backlightLevel100x=2147483647 "},
    {"brightness below equal bounds", brightnessOf({{"value", -9}, {"min", 4}, {"max", 4}}),
     "backlightLevel100x=-2147483648 "},
    {"brightness whose differences wrap",
     brightnessOf({{"value", INT64_MIN}, {"min", 1}, {"max", INT64_MIN}}), "backlightLevel100x=10000 "},
    {"uptime beyond 32 bits", [](auto& host) { host.uptime.seconds = 21474836.48; },
     "uptime.Secs100x=2147483647 "},
    {"two load averages", [](auto& host) { host.kernel.load_averages_result = 2; },
     "uptime.load15Min100x=none "},
    {"no load average", [](auto& host) { host.kernel.load_averages_result = 0; }, kNoLoads},
    {"load averages fail", [](auto& host) { host.kernel.load_averages_result = -1; }, kNoLoads},
    {"no memory level", [](auto& host) { host.kernel.system_values.clear(); }, "jetsamLevel=0 "},
};

TEST(VoLornLogTest, AFailedReadingChangesItsOwnKeysAlone) {
  Host whole;
  snapshotOf(whole);
  for (const auto& [what, change, keys] : kChanges) {
    Host host;
    change(host);
    EXPECT_EQ(snapshotOf(host, &whole), keys) << what;
  }
}

}  // namespace
}  // namespace volorn
