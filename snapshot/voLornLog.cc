#include "snapshot/voLornLog.h"

#include <array>
#include <new>
#include <string_view>
#include <utility>

#include "platform/rounded.h"
#include "platform/services.h"
#include "platform/snapshot_keys.h"
#include "snapshot/saturate.h"

namespace volorn {
namespace {

constexpr std::array kStates = {
    std::pair{snapshot_key::kPluggedIn, kPluggedInState},
    std::pair{snapshot_key::kFullyCharged, kFullyChargedState},
};

constexpr std::array kLoadKeys = {snapshot_key::kLoad1, snapshot_key::kLoad5, snapshot_key::kLoad15};

void write(std::string_view key, std::int64_t value) {
  Current().metric_store.setScalarValue(key, value);
}

void writeTimesOfDay(const DateRef& planned, const DateRef& next_planned) {
  const auto now = std::make_shared<const Date>(Current().clock.now());
  write(snapshot_key::kWakeup, voLornLog::_secsSinceMidnight(now));
  if (planned) write(snapshot_key::kPlanned, voLornLog::_secsSinceMidnight(planned));
  write(snapshot_key::kNext, voLornLog::_secsSinceMidnight(next_planned));
}

void writeThermalLevel() {
  write(snapshot_key::kThermalLevel, Current().thermal.CurrentThermalLevel());
}

void writeBatteryUsageTimes() {
  BatteryUsage& battery_usage = Current().battery_usage;
  float usage_seconds = -1.0F;
  float standby_seconds = -1.0F;
  std::uint8_t fully_charged_once = 0;
  std::uint8_t ignored = 0;
  battery_usage.BatteryUsageTimes(battery_usage.ShellServerPort(), usage_seconds, standby_seconds,
                                  fully_charged_once, ignored);
  // The products are formed in single precision: 0.29F times 100 is 29 there, and 28.99… as doubles.
  write(snapshot_key::kUsage, toInt32Trunc(rounded(usage_seconds * 100.0F)));
  write(snapshot_key::kStandby, toInt32Trunc(rounded(standby_seconds * 100.0F)));
  write(snapshot_key::kFullyChargedOnce, fully_charged_once);
}

void writeBatteryCapacity() {
  DeviceRegistry& registry = Current().device_registry;
  const ServiceHandle service = registry.findServiceOfClass(kPowerSourceServiceClass);
  const auto read = [&](std::string_view name) -> std::optional<double> {
    const std::optional<PropertyValue> property = registry.copyProperty(service, name);
    return property ? property->asDouble() : std::nullopt;
  };
  const std::optional<double> max = read("MaxCapacity");
  const std::optional<double> current = read("CurrentCapacity");
  if (current) {
    write(snapshot_key::kCharged, max ? toInt32Trunc(*current / *max * 100.0 * 100.0) : -10000);
  }
  if (max) write(snapshot_key::kMaxCapacity, toInt32Trunc(*max));
}

void writePlugAndChargeStates() {
  StateNotifier& notifier = Current().state_notifier;
  for (const auto& [key, name] : kStates) {
    std::uint32_t token = 0;
    std::uint64_t state = 0;
    notifier.registerCheck(name, token);
    notifier.getState(token, state);
    write(key, static_cast<std::int32_t>(state));
  }
}

void writeBacklightLevel(voLornLog& log) {
  const BrightnessEntry entry = log.brightnessParameters().value_or(BrightnessEntry{});
  // Unsigned differences wrap where signed ones would be undefined.
  const auto difference = [](std::int64_t a, std::int64_t b) {
    const auto wrapped = static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b);
    return rounded(static_cast<double>(static_cast<std::int64_t>(wrapped)));
  };
  const std::int64_t min = entry.integer("min");
  const double above_min = difference(entry.integer("value"), min);
  const double range = difference(entry.integer("max"), min);
  // Without an entry this is 0 / 0, which the conversion turns into 0.
  write(snapshot_key::kBacklight, toInt32Trunc(above_min / range * 100.0 * 100.0));
}

void writeUptime() {
  write(snapshot_key::kUptime, toInt32Trunc(Current().uptime.UptimeSeconds() * 100.0));
}

void writeLoadAverages() {
  double samples[kLoadKeys.size()] = {};
  const int count = Current().kernel.getloadavg(samples, static_cast<int>(kLoadKeys.size()));
  for (std::size_t i = 0; i < kLoadKeys.size() && static_cast<int>(i) < count; ++i) {
    write(kLoadKeys[i], toInt32Trunc(samples[i] * 100.0));
  }
}

void writeMemoryStatusLevel() {
  std::int32_t level = 0;
  Current().kernel.sysctlbyname("kern.memorystatus_level", level);
  write(snapshot_key::kJetsamLevel, level);
}

}  // namespace

std::unique_ptr<voLornLog> voLornLog::init() {
  return std::unique_ptr<voLornLog>(new (std::nothrow) voLornLog);
}

std::optional<BrightnessEntry> voLornLog::brightnessParameters() {
  DeviceRegistry& registry = Current().device_registry;
  const PropertyTable matching{{std::string(kPropertyMatchKey),
                                PropertyValue{PropertyTable{{"backlight-control", PropertyValue{true}}}}}};
  const ServiceHandle service = registry.findServiceMatching(matching);
  const std::optional<PropertyValue> parameters = registry.copyProperty(service, kDisplayParametersProperty);
  if (!parameters) return std::nullopt;
  const auto* table = std::get_if<PropertyTable>(&parameters->value);
  const PropertyTable* brightness = table ? table->table("brightness") : nullptr;
  if (!brightness) return std::nullopt;
  return *brightness;
}

void voLornLog::writeKeysWithStatusAndPlannedWakeupTimeAndNextPlannedWakeupTime(WakeupStatus /*status*/,
                                                                                const DateRef& planned,
                                                                                const DateRef& next_planned) {
  writeTimesOfDay(planned, next_planned);
  writeThermalLevel();
  writeBatteryUsageTimes();
  writeBatteryCapacity();
  writePlugAndChargeStates();
  writeBacklightLevel(*this);
  writeUptime();
  writeLoadAverages();
  writeMemoryStatusLevel();
}

std::int32_t voLornLog::_secsSinceMidnight(const DateRef& date) {
  const LocalCalendar::TimeOfDay time = Current().local_calendar.timeOfDay(date);
  return (time.hour * 60 + time.minute) * 60 + time.second;
}

}  // namespace volorn
