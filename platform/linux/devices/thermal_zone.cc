#include "platform/linux/devices/thermal_zone.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace volorn::linux_host {
namespace {

constexpr std::int64_t kColdestMillicelsius = -40'000;
constexpr std::int64_t kHottestMillicelsius = 150'000;
constexpr std::int64_t kColdestTripMillicelsius = 20'000;

// The level of a kind is its place here.
constexpr std::array<std::string_view, 5> kTripTypes = {"", "active", "passive", "hot", "critical"};

// Of a trip point once it is reached; 0 for one that counts for nothing.
std::int32_t levelOf(const TripPoint& trip) {
  if (trip.temp_millicelsius < kColdestTripMillicelsius || trip.temp_millicelsius > kHottestMillicelsius) {
    return 0;
  }
  const auto found = std::ranges::find(kTripTypes, trip.type.value_or(""));
  return found == kTripTypes.end() ? 0 : static_cast<std::int32_t>(found - kTripTypes.begin());
}

}  // namespace

bool isTrustworthy(const ThermalZone& zone) {
  return zone.mode != "disabled" && zone.temp_millicelsius &&
         *zone.temp_millicelsius >= kColdestMillicelsius && *zone.temp_millicelsius <= kHottestMillicelsius &&
         !zone.policy.value_or("").starts_with("low_limits_");
}

std::optional<std::int32_t> thermalLevel(std::span<const ThermalZone> zones) {
  std::optional<std::int32_t> worst;
  for (const ThermalZone& zone : zones) {
    if (!isTrustworthy(zone)) continue;
    for (const TripPoint& trip : zone.trip_points) {
      const std::int32_t level = levelOf(trip);
      if (level == 0) continue;
      const bool is_reached = zone.temp_millicelsius >= trip.temp_millicelsius;
      worst = std::max(worst.value_or(0), is_reached ? level : 0);
    }
  }
  return worst;
}

}  // namespace volorn::linux_host
