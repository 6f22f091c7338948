#include "volornctl/time_text.h"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace volorn::ctl {
namespace {

constexpr std::int64_t kSecondsPerDay = 86'400;

constexpr std::int64_t daysSince1970(std::chrono::year_month_day day) {
  return std::chrono::sys_days(day).time_since_epoch().count();
}
constexpr std::int64_t kFirstDay = daysSince1970(std::chrono::year(0) / 1 / 1);
constexpr std::int64_t kLastDay = daysSince1970(std::chrono::year(9999) / 12 / 31);

constexpr bool showable(std::int64_t seconds_since_1970) {
  return seconds_since_1970 >= kFirstDay * kSecondsPerDay &&
         seconds_since_1970 < (kLastDay + 1) * kSecondsPerDay;
}

// Rounded down; none where no text can show it.
std::optional<std::int64_t> wholeSeconds(const Date& date) {
  const double seconds = std::floor(date.secondsSince1970());
  // A plain cast is undefined beyond these, and for no number.
  if (!(std::abs(seconds) < 1e15)) return std::nullopt;
  const auto whole = static_cast<std::int64_t>(seconds);
  return showable(whole) ? std::optional(whole) : std::nullopt;
}

std::string dateAndTime(std::int64_t seconds_since_1970, char separator) {
  const std::chrono::sys_seconds time{std::chrono::seconds(seconds_since_1970)};
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::hh_mm_ss clock{time - day};
  char text[32];
  std::snprintf(text, sizeof text, "%c%02d:%02d:%02d", separator, static_cast<int>(clock.hours().count()),
                static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()));
  return dayText(day.time_since_epoch().count()).value_or("") + text;
}

}  // namespace

TimeZone systemTimeZone() {
  tzset();
  return [](std::int64_t seconds_since_1970) -> ZoneOffset {
    const auto time = static_cast<time_t>(seconds_since_1970);
    tm local = {};
    if (!localtime_r(&time, &local)) return {.seconds_east = 0, .name = "UTC"};
    return {.seconds_east = local.tm_gmtoff, .name = local.tm_zone};
  };
}

std::optional<std::string> rfc3339(const Date& date) {
  const std::optional<std::int64_t> seconds = wholeSeconds(date);
  if (!seconds) return std::nullopt;
  return dateAndTime(*seconds, 'T') + "Z";
}

std::string utcTime(const Date& date) {
  const std::optional<std::int64_t> seconds = wholeSeconds(date);
  return seconds ? dateAndTime(*seconds, ' ') + " UTC" : "beyond the calendar";
}

std::string timeAround(const Date& date, const Moment& moment) {
  std::string text = utcTime(date);
  const std::optional<std::int64_t> seconds = wholeSeconds(date);
  if (!seconds) return text;
  const ZoneOffset zone = moment.time_zone(*seconds);
  const std::int64_t local = *seconds + zone.seconds_east;
  if (zone.name != "UTC" && showable(local)) text += " (" + dateAndTime(local, ' ') + " " + zone.name + ")";
  return text + ", " + distance(date, moment.now);
}

std::string distance(const Date& date, const Date& now) {
  const double ahead_seconds = date.secondsSince(now);
  const double away_seconds = std::floor(std::abs(ahead_seconds));
  if (!(away_seconds < 1e15)) return ahead_seconds > 0 ? "never" : "long ago";
  if (away_seconds < 1) return "now";
  const std::string away = duration(static_cast<std::int64_t>(away_seconds));
  return ahead_seconds > 0 ? "in " + away : away + " ago";
}

std::string duration(std::int64_t seconds) {
  struct Unit {
    std::int64_t seconds;
    const char* name;
  };
  static constexpr std::array kUnits = {Unit{kSecondsPerDay, " d"}, Unit{3600, " h"}, Unit{60, " min"},
                                        Unit{1, " s"}};
  std::size_t largest = 0;
  while (largest + 1 < kUnits.size() && seconds < kUnits[largest].seconds) ++largest;
  std::string text = std::to_string(seconds / kUnits[largest].seconds) + kUnits[largest].name;
  if (largest + 1 == kUnits.size()) return text;
  const Unit& next = kUnits[largest + 1];
  const std::int64_t rest = seconds % kUnits[largest].seconds / next.seconds;
  return rest == 0 ? text : text + " " + std::to_string(rest) + next.name;
}

std::optional<std::string> dayText(std::int64_t days_since_1970) {
  if (days_since_1970 < kFirstDay || days_since_1970 > kLastDay) return std::nullopt;
  const std::chrono::year_month_day day{
      std::chrono::sys_days{std::chrono::days(static_cast<int>(days_since_1970))}};
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02u-%02u", static_cast<int>(day.year()),
                static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()));
  return text;
}

}  // namespace volorn::ctl
