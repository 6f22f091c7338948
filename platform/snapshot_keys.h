#pragma once

#include <algorithm>
#include <array>
#include <string_view>

namespace volorn::snapshot_key {

#define VOLORN_SNAPSHOT_KEY(name) "com.zorvik.snapshot." name

inline constexpr std::string_view kPrefix = VOLORN_SNAPSHOT_KEY("");

inline constexpr std::string_view kWakeup = VOLORN_SNAPSHOT_KEY("wakeupSecsSinceMidnight");
inline constexpr std::string_view kPlanned = VOLORN_SNAPSHOT_KEY("plannedSecsSinceMidnight");
inline constexpr std::string_view kNext = VOLORN_SNAPSHOT_KEY("nextSecsSinceMidnight");
inline constexpr std::string_view kThermalLevel = VOLORN_SNAPSHOT_KEY("thermalLevel");
inline constexpr std::string_view kUsage = VOLORN_SNAPSHOT_KEY("battery.usageSecs100x");
inline constexpr std::string_view kStandby = VOLORN_SNAPSHOT_KEY("battery.standbySecs100x");
inline constexpr std::string_view kFullyChargedOnce = VOLORN_SNAPSHOT_KEY("battery.fullyChargedOnce");
inline constexpr std::string_view kCharged = VOLORN_SNAPSHOT_KEY("battery.chargedPct100x");
inline constexpr std::string_view kMaxCapacity = VOLORN_SNAPSHOT_KEY("battery.maxCapacity");
inline constexpr std::string_view kPluggedIn = VOLORN_SNAPSHOT_KEY("battery.pluggedIn");
inline constexpr std::string_view kFullyCharged = VOLORN_SNAPSHOT_KEY("battery.fullyCharged");
inline constexpr std::string_view kBacklight = VOLORN_SNAPSHOT_KEY("backlightLevel100x");
inline constexpr std::string_view kUptime = VOLORN_SNAPSHOT_KEY("uptime.Secs100x");
inline constexpr std::string_view kLoad1 = VOLORN_SNAPSHOT_KEY("uptime.load1Min100x");
inline constexpr std::string_view kLoad5 = VOLORN_SNAPSHOT_KEY("uptime.load5Min100x");
inline constexpr std::string_view kLoad15 = VOLORN_SNAPSHOT_KEY("uptime.load15Min100x");
inline constexpr std::string_view kJetsamLevel = VOLORN_SNAPSHOT_KEY("jetsamLevel");

#undef VOLORN_SNAPSHOT_KEY

// Every key, in the order in which a snapshot writes them.
inline constexpr std::array kAll = {kWakeup,       kPlanned,          kNext,    kThermalLevel, kUsage,
                                    kStandby,      kFullyChargedOnce, kCharged, kMaxCapacity,  kPluggedIn,
                                    kFullyCharged, kBacklight,        kUptime,  kLoad1,        kLoad5,
                                    kLoad15,       kJetsamLevel};

static_assert(kAll.size() == 17);
static_assert([] {
  auto sorted = kAll;
  std::sort(sorted.begin(), sorted.end());
  return std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end();
}());

}  // namespace volorn::snapshot_key
