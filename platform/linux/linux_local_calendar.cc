#include "platform/linux/linux_local_calendar.h"

#include <algorithm>
#include <cmath>
#include <ctime>

namespace volorn::linux_host {

LocalCalendar::TimeOfDay LinuxLocalCalendar::timeOfDay(const DateRef& date) {
  constexpr double kBeyondTime = 0x1p63;
  if (!date) return {};
  const double seconds = std::floor(date->secondsSince1970());
  if (!(seconds >= -kBeyondTime && seconds < kBeyondTime)) return {};  // holds for NaN too
  const auto time = static_cast<std::time_t>(seconds);
  tzset();  // localtime_r need not look whether the zone has changed
  std::tm local = {};
  if (!localtime_r(&time, &local)) return {};
  // Zones that count leap seconds show 60; no day of ours is longer than 86400 seconds.
  return {.hour = local.tm_hour, .minute = local.tm_min, .second = std::min(local.tm_sec, 59)};
}

}  // namespace volorn::linux_host
