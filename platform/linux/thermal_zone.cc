#include "platform/linux/thermal_zone.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace volorn::linux_host {
namespace {

constexpr std::int64_t kColdestMillicelsius = -40'000;
constexpr std::int64_t kHottestMillicelsius = 150'000;

// The level of a kind is its place here.
constexpr std::array<std::string_view, 5> kTripTypes = {"", "active", "passive", "hot", "critical"};

std::int32_t levelOf(const TripPoint& trip) {
  const auto found = std::ranges::find(kTripTypes, trip.type.value_or(""));
  return found == kTripTypes.end() ? 0 : static_cast<std::int32_t>(found - kTripTypes.begin());
}

}  // namespace

bool isTrustworthy(const ThermalZone& zone) {
  return zone.mode != "disabled" && zone.temp_millicelsius &&
         *zone.temp_millicelsius >= kColdestMillicelsius && *zone.temp_millicelsius <= kHottestMillicelsius;
}

bool hasReached(const ThermalZone& zone, std::int64_t trip_millicelsius) {
  return trip_millicelsius > 0 && trip_millicelsius <= kHottestMillicelsius &&
         zone.temp_millicelsius >= trip_millicelsius;
}

std::int32_t thermalLevel(std::span<const ThermalZone> zones) {
  std::int32_t worst = 0;
  for (const ThermalZone& zone : zones) {
    if (!isTrustworthy(zone)) continue;
    for (const TripPoint& trip : zone.trip_points) {
      if (hasReached(zone, trip.temp_millicelsius)) worst = std::max(worst, levelOf(trip));
    }
  }
  return worst;
}

}  // namespace volorn::linux_host
