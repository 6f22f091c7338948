#include "volornctl/kept/key_meaning.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>

#include "platform/snapshot_keys.h"
#include "volornctl/text/nearest.h"
#include "volornctl/text/number_text.h"
#include "volornctl/text/time_text.h"

namespace volorn::ctl {
namespace {

constexpr std::array kMeanings = {
    KeyMeaning{snapshot_key::kWakeup, "Time of the start", "times", Unit::kTimeOfDay,
               "volorn_wakeup_time_of_day_seconds",
               "Local time of day of the snapshot, in seconds since midnight."},
    KeyMeaning{snapshot_key::kPlanned, "Time planned for it", "times", Unit::kTimeOfDay,
               "volorn_planned_time_of_day_seconds",
               "Local time of day that the snapshot was planned for, in seconds since midnight."},
    KeyMeaning{snapshot_key::kNext, "Time planned for the next", "times", Unit::kTimeOfDay,
               "volorn_next_time_of_day_seconds",
               "Local time of day planned for the next snapshot, in seconds since midnight."},
    KeyMeaning{snapshot_key::kThermalLevel, "Heat", "system", Unit::kLevel, "volorn_thermal_level",
               "Heat: 0 none, 1 active, 2 passive, 3 hot, 4 critical."},
    KeyMeaning{snapshot_key::kUsage, "In use on battery", "battery", Unit::kSeconds100x,
               "volorn_battery_usage_seconds", "Time in use on battery."},
    KeyMeaning{snapshot_key::kStandby, "Standby on battery", "battery", Unit::kSeconds100x,
               "volorn_battery_standby_seconds", "Time in standby on battery."},
    KeyMeaning{snapshot_key::kFullyChargedOnce, "Fully charged once", "battery", Unit::kYesNo,
               "volorn_battery_fully_charged_once", "1 if the battery has been fully charged once, else 0."},
    KeyMeaning{snapshot_key::kCharged, "Charge", "battery", Unit::kPercent100x, "volorn_battery_charge_ratio",
               "Charge of the battery, 1 being full."},
    KeyMeaning{snapshot_key::kMaxCapacity, "Full capacity", "battery", Unit::kCapacity,
               "volorn_battery_max_capacity",
               "Full capacity of the battery in a unit of its own: uWh, uAh or percent."},
    KeyMeaning{snapshot_key::kPluggedIn, "Plugged in", "battery", Unit::kYesNo, "volorn_battery_plugged_in",
               "1 if plugged in, else 0."},
    KeyMeaning{snapshot_key::kFullyCharged, "Fully charged", "battery", Unit::kYesNo,
               "volorn_battery_fully_charged", "1 if the battery is fully charged, else 0."},
    KeyMeaning{snapshot_key::kBacklight, "Brightness of the display", "system", Unit::kPercent100x,
               "volorn_backlight_ratio", "Brightness of the display, 1 being its highest."},
    KeyMeaning{snapshot_key::kUptime, "Time since the start of the system", "system", Unit::kSeconds100x,
               "volorn_uptime_seconds", "Time since the system started, no more than 21474836.47."},
    KeyMeaning{snapshot_key::kLoad1, "Load over 1 minute", "system", Unit::kHundredths, "volorn_load1",
               "Load average over 1 minute."},
    KeyMeaning{snapshot_key::kLoad5, "Load over 5 minutes", "system", Unit::kHundredths, "volorn_load5",
               "Load average over 5 minutes."},
    KeyMeaning{snapshot_key::kLoad15, "Load over 15 minutes", "system", Unit::kHundredths, "volorn_load15",
               "Load average over 15 minutes."},
    KeyMeaning{snapshot_key::kJetsamLevel, "Memory available", "system", Unit::kPercent,
               "volorn_memory_available_ratio", "Memory available to programs, as a share of all."},
};

static_assert(std::ranges::equal(kMeanings, snapshot_key::kAll, {}, &KeyMeaning::key));

std::string timeOfDay(std::int64_t seconds) {
  if (seconds < 0 || seconds >= 86'400) return "";
  char text[16];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d", static_cast<int>(seconds / 3600),
                static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));
  return text;
}

std::string seconds100x(std::int64_t value) {
  if (value < 60 * 100) return scaledText(value, 2) + " s";
  // The number that was too large for the daemon's conversion, or just met it.
  const bool saturated = value == std::numeric_limits<std::int32_t>::max();
  return (saturated ? "at least " : "") + duration(value / 100);
}

std::string level(std::int64_t value) {
  constexpr std::array kLevels = {"none", "active", "passive", "hot", "critical"};
  return value >= 0 && value < std::ssize(kLevels) ? kLevels[static_cast<std::size_t>(value)] : "";
}

}  // namespace

std::span<const KeyMeaning> keyMeanings() {
  return kMeanings;
}

const KeyMeaning* meaningOf(std::string_view key) {
  const auto* meaning = std::ranges::find(kMeanings, key, &KeyMeaning::key);
  return meaning == kMeanings.end() ? nullptr : meaning;
}

bool isNamed(std::string_view key, std::string_view name) {
  const KeyMeaning* meaning = meaningOf(key);
  return key == name || (key.starts_with(snapshot_key::kPrefix) && withoutPrefix(key) == name) ||
         (meaning && meaning->group == name);
}

std::vector<std::string> keyNames() {
  std::vector<std::string> names;
  for (const KeyMeaning& known : kMeanings) names.push_back(withoutPrefix(known.key));
  for (const KeyMeaning& known : kMeanings) {
    const std::string group(known.group);
    if (std::ranges::find(names, group) == names.end()) names.push_back(group);
  }
  return names;
}

void refuseUnknownName(std::string_view name) {
  if (std::ranges::any_of(kMeanings, [&](const KeyMeaning& known) { return isNamed(known.key, name); }))
    return;
  throw CLI::ValidationError("--key",
                             "not a key of these snapshots: " + std::string(name) + hint(name, keyNames()));
}

std::string withoutPrefix(std::string_view key) {
  if (key.starts_with(snapshot_key::kPrefix)) key.remove_prefix(snapshot_key::kPrefix.size());
  return std::string(key);
}

std::optional<std::int64_t> knownValue(const linux_host::StoredSnapshot& snapshot, std::string_view key) {
  const auto metric = std::find_if(snapshot.metrics.rbegin(), snapshot.metrics.rend(),
                                   [=](const auto& candidate) { return candidate.first == key; });
  if (metric == snapshot.metrics.rend() || !snapshot.isKnown(key)) return std::nullopt;
  return metric->second;
}

std::string reading(std::string_view key, std::int64_t value) {
  const KeyMeaning* meaning = meaningOf(key);
  if (!meaning) return "";
  switch (meaning->unit) {
    case Unit::kTimeOfDay:
      return timeOfDay(value);
    case Unit::kLevel:
      return level(value);
    case Unit::kSeconds100x:
      return seconds100x(value);
    case Unit::kYesNo:
      return value == 0 ? "no" : "yes";
    case Unit::kPercent100x:
      return scaledText(value, 2) + " %";
    case Unit::kCapacity:
      return "";
    case Unit::kHundredths:
      return scaledText(value, 2);
    case Unit::kPercent:
      return std::to_string(value) + " %";
  }
  return "";
}

void addValue(Row& row, const linux_host::StoredSnapshot& snapshot, std::string_view key,
              std::int64_t value) {
  const bool is_known = snapshot.isKnown(key);
  row.push_back({.text = is_known ? std::to_string(value) : kNotKnown, .right = true});
  row.push_back({.text = is_known ? reading(key, value) : ""});
}

std::size_t gaugeDigits(Unit unit) {
  switch (unit) {
    case Unit::kTimeOfDay:
    case Unit::kLevel:
    case Unit::kYesNo:
    case Unit::kCapacity:
      return 0;
    case Unit::kSeconds100x:
    case Unit::kHundredths:
    case Unit::kPercent:
      return 2;
    case Unit::kPercent100x:
      return 4;
  }
  return 0;
}

}  // namespace volorn::ctl
