#include "waketide/schedule.h"

#include <cmath>

namespace volorn::waketide {
namespace {

constexpr double kDaySeconds = 86400.0;
constexpr double kFarthestPlanSeconds = 2.0 * kDaySeconds;

Date later(Date date, double seconds) {
  return Date::fromSecondsSinceReferenceDate(date.secondsSinceReferenceDate() + seconds);
}

}  // namespace

bool isTooFarAhead(Date plan, Date now) {
  return plan.secondsSince(now) > kFarthestPlanSeconds;
}

bool isDue(const Row& row, Date now) {
  if (!row) return true;
  const Date start = Date::fromSecondsSinceReferenceDate(row->window_start_time);
  return start.secondsSince(now) <= 0.0 || isTooFarAhead(start, now);
}

Date nextUtcMidnight(Date date) {
  return Date::fromSecondsSince1970((std::floor(date.secondsSince1970() / kDaySeconds) + 1.0) * kDaySeconds);
}

std::optional<Date> Schedule::nextStart(const Row& row, Date now) {
  // A clock set back behind the start would else put off its midnight by as much.
  if (served_ && now.secondsSince(served_->started) < 0.0) served_->started = now;

  Date next = now;
  if (!isDue(row, now)) {
    next = Date::fromSecondsSinceReferenceDate(row->window_start_time);
  } else if (served_ && served_->row == row) {
    next = nextUtcMidnight(served_->started);
  }
  if (next.secondsSince(now) <= 0.0) return std::nullopt;
  return next;
}

std::optional<Date> Schedule::sleepUntil(const Row& row, Date now) {
  const auto next = nextStart(row, now);
  if (!next || next->secondsSince(now) <= kDaySeconds) return next;
  return later(now, kDaySeconds);
}

void Schedule::recordRun(Date started, Date ended, const Row& row) {
  served_.reset();
  if (isDue(row, ended)) served_ = Served{started, row};
}

}  // namespace volorn::waketide
