#include "volornctl/text/time_text.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>

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

// Its last digits, so many. Every row of a sample has a time.
void addDigits(std::string& text, std::int64_t number, int digits) {
  const std::size_t end = text.size() + static_cast<std::size_t>(digits);
  text.resize(end);
  for (std::size_t at = end; digits > 0; --digits, number /= 10)
    text[--at] = static_cast<char>('0' + number % 10);
}

std::string dateAndTime(std::int64_t seconds_since_1970, char separator) {
  const std::chrono::sys_seconds time{std::chrono::seconds(seconds_since_1970)};
  const auto day = std::chrono::floor<std::chrono::days>(time);
  const std::chrono::hh_mm_ss clock{time - day};
  std::string text = dayText(day.time_since_epoch().count()).value_or("");
  addDigits(text += separator, clock.hours().count(), 2);
  addDigits(text += ':', clock.minutes().count(), 2);
  addDigits(text += ':', clock.seconds().count(), 2);
  return text;
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

std::optional<std::string> rfc3339(const Date& date, const TimeZone& time_zone) {
  const std::optional<std::int64_t> seconds = wholeSeconds(date);
  if (!seconds) return std::nullopt;
  const std::int64_t east = time_zone(*seconds).seconds_east;
  if (!showable(*seconds + east)) return std::nullopt;
  char offset[16];
  const auto minutes = static_cast<int>(std::abs(east) / 60);
  std::snprintf(offset, sizeof offset, "%c%02d:%02d", east < 0 ? '-' : '+', minutes / 60 % 100, minutes % 60);
  return dateAndTime(*seconds + east, 'T') + offset;
}

std::optional<Date> dateOf(const std::string& text, const TimeZone& time_zone) {
  constexpr std::string_view kForm = "dddd-dd-ddTdd:dd:dd";
  constexpr std::size_t kDay = 10;
  const bool is_utc = text.ends_with('Z');
  const std::size_t length = text.size() - (is_utc ? 1 : 0);
  if (length != kForm.size() && (is_utc || length != kDay)) return std::nullopt;
  for (std::size_t i = 0; i < length; ++i) {
    const bool is_digit = text[i] >= '0' && text[i] <= '9';
    if (kForm[i] == 'd' ? !is_digit : text[i] != kForm[i]) return std::nullopt;
  }
  const auto number = [&](std::size_t at, std::size_t digits) {
    return at < length ? std::stoi(text.substr(at, digits)) : 0;
  };
  const auto day = std::chrono::year(number(0, 4)) / number(5, 2) / number(8, 2);
  if (!day.ok() || number(11, 2) > 23 || number(14, 2) > 59 || number(17, 2) > 60) return std::nullopt;
  const std::int64_t clock = number(11, 2) * 3600 + number(14, 2) * 60 + number(17, 2);
  const std::int64_t seconds = daysSince1970(day) * kSecondsPerDay + clock;
  const auto moment = [&](std::int64_t seconds_east) {
    return Date::fromSecondsSince1970(static_cast<double>(seconds - seconds_east));
  };
  if (is_utc) return moment(0);
  // Of a time that a change of the clocks repeats the first counts; by one that it leaves out, the clock's
  // as it stood before: a midnight that is left out is when the day begins.
  const std::int64_t before = time_zone(seconds - kSecondsPerDay).seconds_east;
  const std::int64_t after = time_zone(seconds + kSecondsPerDay).seconds_east;
  const bool is_after =
      time_zone(seconds - before).seconds_east != before && time_zone(seconds - after).seconds_east == after;
  return moment(is_after ? after : before);
}

ZoneOffset utc(std::int64_t /*seconds_since_1970*/) {
  return {.seconds_east = 0, .name = "UTC"};
}

std::optional<std::string> rfc3339Milliseconds(const Date& date) {
  const std::optional<std::int64_t> seconds = wholeSeconds(date);
  if (!seconds) return std::nullopt;
  const double part = date.secondsSince1970() - static_cast<double>(*seconds);
  std::string text = dateAndTime(*seconds, 'T') + '.';
  // The number nearest to a millisecond may lie below it; so near to the next one it is meant.
  addDigits(text, std::clamp(static_cast<int>(part * 1000 + 1e-3), 0, 999), 3);
  return text + 'Z';
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

std::optional<std::int64_t> daysSince1970(const Date& date) {
  const std::optional<std::int64_t> seconds = wholeSeconds(date);
  if (!seconds) return std::nullopt;
  return *seconds / kSecondsPerDay - (*seconds % kSecondsPerDay < 0 ? 1 : 0);
}

std::optional<std::string> dayText(std::int64_t days_since_1970) {
  if (days_since_1970 < kFirstDay || days_since_1970 > kLastDay) return std::nullopt;
  const std::chrono::year_month_day day{
      std::chrono::sys_days{std::chrono::days(static_cast<int>(days_since_1970))}};
  std::string text;
  addDigits(text, static_cast<int>(day.year()), 4);
  addDigits(text += '-', static_cast<unsigned>(day.month()), 2);
  addDigits(text += '-', static_cast<unsigned>(day.day()), 2);
  return text;
}

}  // namespace volorn::ctl
