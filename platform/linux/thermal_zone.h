#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace volorn::linux_host {

struct TripPoint {
  std::int64_t temp_millicelsius = 0;
  std::optional<std::string> type = {};  // active, passive, hot or critical
};

// A zone of /sys/class/thermal.
struct ThermalZone {
  std::optional<std::string> mode;                // enabled or disabled
  std::optional<std::int64_t> temp_millicelsius;  // none when the sensor would not tell
  std::vector<TripPoint> trip_points;
};

// False for a zone that is switched off or whose sensor tells nothing, or what no device lives through.
bool isTrustworthy(const ThermalZone& zone);

// Whether the zone is as hot as a trip point that means something: firmware marks unused ones with absurd
// temperatures.
bool hasReached(const ThermalZone& zone, std::int64_t trip_millicelsius);

// How far the worst zone has passed its trip points: 0 none, 1 active, 2 passive, 3 hot, 4 critical.
std::int32_t thermalLevel(std::span<const ThermalZone> zones);

}  // namespace volorn::linux_host
