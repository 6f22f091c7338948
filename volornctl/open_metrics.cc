#include "volornctl/open_metrics.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

#include "snapshot/snapshot_keys.h"
#include "volornctl/metrics.h"
#include "volornctl/number_text.h"

namespace volorn::ctl {
namespace {

struct Gauge {
  std::string_view key;
  const char* name;
  std::size_t digits;  // behind the point, once the stored number is in the base unit
  const char* help;    // without quotes and backslashes, which the two formats escape differently
};

constexpr std::array kGauges = {
    Gauge{snapshot_key::kWakeup, "volorn_wakeup_time_of_day_seconds", 0,
          "Local time of day of the snapshot, in seconds since midnight."},
    Gauge{snapshot_key::kPlanned, "volorn_planned_time_of_day_seconds", 0,
          "Local time of day that the snapshot was planned for, in seconds since midnight."},
    Gauge{snapshot_key::kNext, "volorn_next_time_of_day_seconds", 0,
          "Local time of day planned for the next snapshot, in seconds since midnight."},
    Gauge{snapshot_key::kThermalLevel, "volorn_thermal_level", 0,
          "Heat: 0 none, 1 active, 2 passive, 3 hot, 4 critical."},
    Gauge{snapshot_key::kUsage, "volorn_battery_usage_seconds", 2, "Time in use on battery."},
    Gauge{snapshot_key::kStandby, "volorn_battery_standby_seconds", 2, "Time in standby on battery."},
    Gauge{snapshot_key::kFullyChargedOnce, "volorn_battery_fully_charged_once", 0,
          "1 if the battery has been fully charged once, else 0."},
    Gauge{snapshot_key::kCharged, "volorn_battery_charge_ratio", 4,
          "Charge of the battery, 1 being full; -1 when its capacity is not known."},
    Gauge{snapshot_key::kMaxCapacity, "volorn_battery_max_capacity", 0,
          "Full capacity of the battery in a unit of its own: uWh, uAh or percent."},
    Gauge{snapshot_key::kPluggedIn, "volorn_battery_plugged_in", 0, "1 if plugged in, else 0."},
    Gauge{snapshot_key::kFullyCharged, "volorn_battery_fully_charged", 0,
          "1 if the battery is fully charged, else 0."},
    Gauge{snapshot_key::kBacklight, "volorn_backlight_ratio", 4,
          "Brightness of the display, 1 being its highest; 0 also without one."},
    Gauge{snapshot_key::kUptime, "volorn_uptime_seconds", 2,
          "Time since the system started, no more than 21474836.47."},
    Gauge{snapshot_key::kLoad1, "volorn_load1", 2, "Load average over 1 minute."},
    Gauge{snapshot_key::kLoad5, "volorn_load5", 2, "Load average over 5 minutes."},
    Gauge{snapshot_key::kLoad15, "volorn_load15", 2, "Load average over 15 minutes."},
    Gauge{snapshot_key::kJetsamLevel, "volorn_memory_available_ratio", 2,
          "Memory available to programs, as a share of all; 0 also when not known."},
};

static_assert(std::ranges::equal(kGauges, snapshot_key::kAll, {}, &Gauge::key));

// The latest, should a snapshot hold a key twice: two samples of one gauge would spoil the whole text.
std::optional<std::int64_t> valueOf(const linux_host::StoredSnapshot& snapshot, std::string_view key) {
  const auto metric = std::find_if(snapshot.metrics.rbegin(), snapshot.metrics.rend(),
                                   [=](const auto& candidate) { return candidate.first == key; });
  return metric == snapshot.metrics.rend() ? std::nullopt : std::optional(metric->second);
}

std::string gaugeText(const std::string& name, const char* help, const std::string& value) {
  return "# HELP " + name + " " + help + "\n# TYPE " + name + " gauge\n" + name + " " + value + "\n";
}

}  // namespace

std::string openMetricsText(const linux_host::StoredSnapshot& snapshot) {
  std::string text;
  for (const Gauge& gauge : kGauges) {
    const std::optional<std::int64_t> value = valueOf(snapshot, gauge.key);
    if (!value) continue;
    // Of a charge that is not known the gauge tells so itself.
    if (!isKnown(gauge.key, *value) && gauge.key != snapshot_key::kCharged) continue;
    text += gaugeText(gauge.name, gauge.help, scaledText(*value, gauge.digits));
  }
  text += gaugeText("volorn_snapshot_timestamp_seconds", "Time of the snapshot, in seconds since 1970.",
                    decimalText(snapshot.taken_at.secondsSince1970(), 3));
  return text + "# EOF\n";
}

}  // namespace volorn::ctl
