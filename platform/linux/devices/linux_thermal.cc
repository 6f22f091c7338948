#include "platform/linux/devices/linux_thermal.h"

#include <string_view>
#include <vector>

#include "platform/linux/devices/attribute_folder.h"
#include "platform/linux/devices/thermal_zone.h"
#include "platform/linux/read_file.h"
#include "platform/snapshot_keys.h"

namespace volorn::linux_host {
namespace {

constexpr std::string_view kTripTempSuffix = "_temp";

void readTripPoints(const std::string& zone_path, ThermalZone& zone) {
  const AttributeFolder folder(zone_path);
  for (const std::string& name : listFolder(zone_path)) {
    if (!name.starts_with("trip_point_") || !name.ends_with(kTripTempSuffix)) continue;
    const std::optional<std::int64_t> temp = folder.integer(name);
    if (!temp) continue;
    const std::string trip = name.substr(0, name.size() - kTripTempSuffix.size());
    zone.trip_points.push_back({.temp_millicelsius = *temp, .type = folder.text(trip + "_type")});
  }
}

}  // namespace

std::int32_t LinuxThermal::CurrentThermalLevel() {
  const std::string class_folder = sys_root_ + "/class/thermal";
  std::vector<ThermalZone> zones;
  for (const std::string& name : listFolder(class_folder)) {
    if (!name.starts_with("thermal_zone")) continue;  // the rest are cooling devices
    const std::string zone_path = class_folder + '/' + name;
    const AttributeFolder folder(zone_path);
    ThermalZone zone;
    zone.mode = folder.text("mode");
    zone.policy = folder.text("policy");
    zone.temp_millicelsius = folder.integer("temp");
    if (!isTrustworthy(zone)) continue;
    readTripPoints(zone_path, zone);
    zones.push_back(std::move(zone));
  }
  const std::optional<std::int32_t> level = thermalLevel(zones);
  stand_ins_.note(snapshot_key::kThermalLevel, level.has_value());
  return level.value_or(0);
}

}  // namespace volorn::linux_host
