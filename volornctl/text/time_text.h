#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/date.h"

namespace volorn::ctl {

// The local time zone as it holds at one moment.
struct ZoneOffset {
  std::int64_t seconds_east = 0;
  std::string name;  // "CET"
};

// Asked with seconds since 1970.
using TimeZone = std::function<ZoneOffset(std::int64_t seconds_since_1970)>;

// The zone that the C library knows.
TimeZone systemTimeZone();

// When and where a text is read.
struct Moment {
  Date now;
  TimeZone time_zone;
};

// "2026-11-23T04:05:06Z", rounded down to the second. None for what is no date of the years 0 to 9999.
std::optional<std::string> rfc3339(const Date& date);

// The same in a time zone, with its distance from UTC: "2026-11-23T05:05:06+01:00".
std::optional<std::string> rfc3339(const Date& date, const TimeZone& time_zone);

// The moment that "2026-11-23T04:05:06Z" names. Without the Z it is a time of the zone, the first where the
// zone's clock shows it twice, and a day alone is that day's first moment. None for anything else.
std::optional<Date> dateOf(const std::string& text, const TimeZone& time_zone);

// UTC, as a zone.
ZoneOffset utc(std::int64_t seconds_since_1970);
// The same rounded down to the millisecond: "2026-11-23T04:05:06.123Z".
std::optional<std::string> rfc3339Milliseconds(const Date& date);

// "2026-11-23 04:05:06 UTC"; words for what is no date of the years 0 to 9999.
std::string utcTime(const Date& date);

// The same, then the local time unless that is UTC, and how far away it is:
// "2026-11-23 04:05:06 UTC (2026-11-23 05:05:06 CET), in 13 h 20 min".
std::string timeAround(const Date& date, const Moment& moment);

// "in 13 h 20 min", "2 d 3 h ago", "now" within a second.
std::string distance(const Date& date, const Date& now);

// The two largest units, rounded down: "248 d 13 h", "1 h", "0 s". Not for negative durations.
std::string duration(std::int64_t seconds);

// The whole days since 1970 of a moment, in UTC. None outside the years 0 to 9999.
std::optional<std::int64_t> daysSince1970(const Date& date);

// The date of a day counted from 1 January 1970, "2026-11-23". None outside the years 0 to 9999.
std::optional<std::string> dayText(std::int64_t days_since_1970);

}  // namespace volorn::ctl
