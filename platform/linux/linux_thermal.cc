#include "platform/linux/linux_thermal.h"

#include <string_view>
#include <vector>

#include "platform/linux/attribute_folder.h"
#include "platform/linux/read_file.h"
#include "platform/linux/thermal_zone.h"

namespace volorn::linux_host {
namespace {

constexpr std::string_view kTripTempSuffix = "_temp";

// The trip points that the zone has reached: the kind of another is not asked for.
void readTripPoints(const std::string& zone_path, ThermalZone& zone) {
  const AttributeFolder folder(zone_path);
  for (const std::string& name : listFolder(zone_path)) {
    if (!name.starts_with("trip_point_") || !name.ends_with(kTripTempSuffix)) continue;
    const std::optional<std::int64_t> temp = folder.integer(name);
    if (!temp || !hasReached(zone, *temp)) continue;
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
    zone.temp_millicelsius = folder.integer("temp");
    if (!isTrustworthy(zone)) continue;
    readTripPoints(zone_path, zone);
    zones.push_back(std::move(zone));
  }
  return thermalLevel(zones);
}

}  // namespace volorn::linux_host
