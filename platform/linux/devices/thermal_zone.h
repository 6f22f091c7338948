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
  std::optional<std::string> policy;              // the governor that watches over it
  std::optional<std::int64_t> temp_millicelsius;  // none when the sensor would not tell
  std::vector<TripPoint> trip_points;
};

// False for a zone that is switched off or whose sensor tells nothing, or what no device lives through; and
// for what vendors' kernels show as a zone though it is no temperature (millivolts, milliamperes, percents):
// its governor waits for it to fall.
bool isTrustworthy(const ThermalZone& zone);

// How far the worst zone has passed its trip points: 0 not at all, 1 active, 2 passive, 3 hot, 4 critical.
// Firmware marks unused trip points with absurd temperatures, and what is below that of a room was meant as
// something else: they count for nothing. None without a trip point that counts in a trustworthy zone.
std::optional<std::int32_t> thermalLevel(std::span<const ThermalZone> zones);

}  // namespace volorn::linux_host
