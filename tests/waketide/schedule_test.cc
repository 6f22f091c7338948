#include "waketide/schedule.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <vector>

namespace volorn::waketide {
namespace {

constexpr double kMinute = 60.0;
constexpr double kHour = 3600.0;
constexpr double kDay = 86400.0;
constexpr double kMidnight = 20000 * kDay;
constexpr double kNoon = kMidnight + 12 * kHour;

constexpr double kInfinity = std::numeric_limits<double>::infinity();

Date at(double seconds_since_1970) {
  return Date::fromSecondsSince1970(seconds_since_1970);
}

Row opening(double seconds_since_1970) {
  const double start = at(seconds_since_1970).secondsSinceReferenceDate();
  return JobDescription{start, start + 7 * kDay};
}

// A clock that only moves as told, and a daemon of which only the row is left.
struct Host {
  double now = kNoon;
  double run_seconds = 0.0;
  Row row = std::nullopt;
  std::function<Row(double now)> leaves = [](double then) { return opening(then + kDay); };
  Schedule schedule = {};
  std::vector<double> starts = {};

  // Looks once at this moment, and again after each start. The time to sleep until.
  double look() {
    for (;;) {
      if (const auto date = schedule.sleepUntil(row, at(now))) return date->secondsSince1970();
      if (starts.size() == 10'000) return kInfinity;  // a start after the other
      const double started = now;
      starts.push_back(started);
      now += run_seconds;
      row = leaves(started);
      schedule.recordRun(at(started), at(now), row);
    }
  }

  void sleepThrough(double end) {
    for (double until = look(); until < end; until = look()) now = until;
    now = end;
  }
};

using Starts = std::vector<double>;

TEST(ScheduleTest, FirstLook) {
  struct {
    const char* what;
    Row row;
    bool starts;
    double sleeps_until;
  } const rows[] = {
      {"no row", std::nullopt, true, 0},
      {"opens in two seconds", opening(kNoon + 2), false, kNoon + 2},
      {"opens now", opening(kNoon), true, 0},
      {"open", opening(kNoon - kDay), true, 0},
      {"expired", opening(kNoon - 8 * kDay), true, 0},
      {"no plan was stored", JobDescription{0.0, 604800.0}, true, 0},
      {"planned after the wrap of 2038", opening(-2'147'483'648.0), true, 0},
      {"opens as late as a run can plan", opening(kNoon + 2 * kDay), false, kNoon + kDay},
      {"opens later", opening(kNoon + 2 * kDay + 1), true, 0},
      {"opens never", JobDescription{kInfinity, kInfinity}, true, 0},
  };
  for (const auto& row : rows) {
    const auto date = Schedule().sleepUntil(row.row, at(kNoon));
    EXPECT_EQ(!date, row.starts) << row.what;
    EXPECT_EQ(date ? date->secondsSince1970() : 0, row.sleeps_until) << row.what;
  }
}

// What a run may leave behind while its window stays open.
TEST(ScheduleTest, RowThatStaysDueIsStartedAgainOnlyAtMidnight) {
  const Row open = opening(kNoon);
  struct {
    const char* what;
    Row row;
    std::function<Row(double)> leaves;
  } const models[] = {
      {"cannot store", open, [=](double) { return open; }},
      {"no row ever", std::nullopt, [](double) { return Row(); }},
      {"row damaged by the first run", open, [](double) { return Row(); }},
      {"another expired row each time", open, [](double now) { return opening(now - 50'000 * kDay); }},
      {"too far ahead", opening(kNoon + 3650 * kDay), [](double) { return opening(kNoon + 3650 * kDay); }},
  };
  for (const auto& model : models) {
    for (const double first : {kNoon, kMidnight + kDay - 1, kMidnight + kDay}) {
      for (const double run_seconds : {0.0, 5.0, 119.0}) {
        Host host{.now = first, .run_seconds = run_seconds, .row = model.row, .leaves = model.leaves};
        host.sleepThrough(kMidnight + 4.5 * kDay);
        Starts expected{first};
        for (int day = 1; day <= 4; ++day) {
          const double midnight = kMidnight + day * kDay;
          if (midnight > first) expected.push_back(std::max(midnight, first + run_seconds));
        }
        EXPECT_EQ(host.starts, expected) << model.what << " from " << first;
      }
    }
  }
}

// The run counts its snapshot for the new day, but plans that same day: at the plan it finds its work done
// and registers the plan again, which then stands open until the next day's snapshot.
TEST(ScheduleTest, RunThatCrossedMidnight) {
  const double midnight = kMidnight + kDay;
  for (const double plan : {midnight + 2, midnight + 5 * kMinute, midnight + 20 * kHour}) {
    Host host{.now = kNoon, .run_seconds = 3, .row = opening(midnight - 1)};
    host.leaves = [&](double now) { return now < midnight + kDay ? opening(plan) : opening(now + kDay); };
    host.sleepThrough(midnight + kDay + kHour);
    const double served = std::max(plan, midnight + 2);  // not before the first run has ended
    EXPECT_EQ(host.starts, (Starts{midnight - 1, served, midnight + kDay}));
  }
}

// What happens after a start at noon that left its row open.
TEST(ScheduleTest, ChangesAfterARowWasLeftOpen) {
  const Row open = opening(kNoon);
  struct {
    const char* what;
    double now;
    Row row;
    std::size_t starts;
    double sleeps_until;
  } const rows[] = {
      {"the same row", kNoon + 1, open, 1, kMidnight + kDay},
      {"another open one", kNoon + 1, opening(kNoon - 1), 2, kMidnight + kDay},
      {"one to come", kNoon + 1, opening(kNoon + kHour), 1, kNoon + kHour},
      {"none", kNoon + 1, std::nullopt, 2, kMidnight + kDay},
      {"clock set forward three days", kNoon + 3 * kDay, open, 2, kMidnight + 4 * kDay},
      {"clock set back a day, the row is to come", kNoon - kDay, open, 1, kNoon},
      {"clock set back a day, expired row", kNoon - kDay, opening(0), 2, kMidnight},
  };
  for (const auto& row : rows) {
    Host host{.row = open};
    host.leaves = [&host](double) { return host.row; };
    host.look();
    host.now = row.now;
    host.row = row.row;
    EXPECT_EQ(host.look(), row.sleeps_until) << row.what;
    EXPECT_EQ(host.starts.size(), row.starts) << row.what;
  }
}

// Nothing but the daemon's own registering of it again, until it is as near as a plan can be.
TEST(ScheduleTest, PlanThatIsTooFarAheadIsWaitedForInTheEnd) {
  const double plan = kMidnight + 5 * kDay + kHour;
  Host host{.row = opening(plan)};
  host.leaves = [=](double now) { return opening(now < plan ? plan : now + kDay); };
  host.sleepThrough(plan + kHour);
  EXPECT_EQ(host.starts, (Starts{kNoon, kMidnight + kDay, kMidnight + 2 * kDay, kMidnight + 3 * kDay, plan}));
}

}  // namespace
}  // namespace volorn::waketide
