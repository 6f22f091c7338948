#include "daemon/voLornController.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "platform/fake/fake_host.h"

namespace volorn {
namespace {

constexpr double kDay = 86400.0;
constexpr double kNoon = 20000 * kDay + 43200;

constexpr const char* kPlanKey = "com.zorvik.volorn nextPlannedWakeupTime";
constexpr const char* kLastKey = "com.zorvik.volorn lastWakeupTime";
constexpr const char* kDumpedKey = "com.zorvik.volorn lastLogDumpedDaySince1970";
constexpr const char* kJob = "com.zorvik.volorn.logcreation";

constexpr const char* kNoJobLine = "WTD job doesn't exist";
constexpr const char* kNoPlanLine =
    "No wakeupTime set in preferences - either first time, or first after an erase install";
constexpr const char* kEarlyLine =
    "Woke up before 30.000000 seconds from due time, so not resetting planned wake up time";
constexpr const char* kLateLine =
    "Woke up too late, will mark that we were likely asleep at the time and exit";
constexpr const char* kTooEarlyLine = "wakeupstatus was wakeupstatus too early";
constexpr const char* kDumpedLine = "already dumped today!!";
constexpr const char* kReschedulingLine = "rescheduling current trigger and not dumping the log";

using Lines = std::vector<std::string>;

struct Host : fake::FakeHost {
  Host() { clock.seconds_since_1970 = kNoon; }

  void plan(double seconds_since_1970) {
    preferences_store.values.emplace(kPlanKey, Date::fromSecondsSince1970(seconds_since_1970));
  }
  std::optional<PreferenceValue> preference(const char* key) const {
    const auto found = preferences_store.values.find(key);
    return found == preferences_store.values.end() ? std::nullopt : std::optional(found->second);
  }
  std::optional<double> storedPlan() const {
    const auto plan = preference(kPlanKey);
    return plan ? std::optional(std::get<Date>(*plan).secondsSince1970()) : std::nullopt;
  }

  // One start of the daemon: the log lines it wrote.
  Lines run() {
    system_log.lines.clear();
    const Services installed = services();
    const ScopedServices scoped(installed);
    voLornController::init()->handleTrigger();
    waketide.handler = nullptr;
    return system_log.lines;
  }
};

const PreferenceValue kToday{std::int64_t{20000}};

struct Start {
  const char* what;
  std::optional<double> late_seconds;  // behind the stored plan
  std::optional<PreferenceValue> dumped_day;
  Lines lines;  // behind the one about the job; the last tells whether there is a snapshot
  double next_plan = 20001 * kDay;  // of a start with a snapshot
  double clock = kNoon;
  std::uint32_t random = 0;
  double seconds_per_reading = 0;
  bool clock_fails = false;
};

const Start kStarts[] = {
    {"the first", {}, {}, {kNoPlanLine}, 20001 * kDay + 43200, kNoon, 0x8000'0000},
    {"at the second", 0, {}, {}},
    {"at the late bound", 30, {}, {}},
    {"late", 30.001, {}, {kLateLine}},
    {"a year late", 400 * kDay, {}, {kLateLine}},
    {"at the early bound", -30, {}, {}},
    {"early", -30.001, {}, {kEarlyLine, kTooEarlyLine, kReschedulingLine}},
    {"no number", std::nan(""), {}, {}},
    {"early and again", -31, kToday, {kEarlyLine, kTooEarlyLine, kDumpedLine, kReschedulingLine}},
    {"again", 0, kToday, {kDumpedLine, kReschedulingLine}},
    {"low 32 bits", 0, std::int64_t{0x5'0000'4E20}, {kDumpedLine, kReschedulingLine}},
    {"again without a plan", {}, kToday, {kNoPlanLine, kDumpedLine, kReschedulingLine}},
    {"the day after", 0, std::int64_t{19999}, {}},
    {"the day before, after the clock went back", 0, std::int64_t{20001}, {}},
    {"no integer", 0, Date::fromSecondsSinceReferenceDate(20000), {}},
    {"largest random number", {}, {}, {kNoPlanLine}, 20001 * kDay + 86399, kNoon, 0xFFFF'FFFF},
    {"last second of 32 bits", {}, {}, {kNoPlanLine}, 2147483647, 24854 * kDay, 578975511},
    {"the next wraps", {}, {}, {kNoPlanLine}, -2147483648.0, 24854 * kDay, 579025221},
    {"the day wraps", {}, {}, {kNoPlanLine}, 24856 * kDay - 4294967296.0, 24855 * kDay},
    {"end of a day", {}, {}, {kNoPlanLine}, 20001 * kDay, 20001 * kDay - 0.5},
    {"first second of a day", {}, {}, {kNoPlanLine}, 20002 * kDay, 20001 * kDay},
    {"planned from the old day, stored for the new",
     {},
     {},
     {kNoPlanLine},
     20001 * kDay,
     20001 * kDay - 2,
     0,
     1},
    {"no clock", {}, {}, {kNoPlanLine}, 0, kNoon, 0, 0, true},
    {"no clock, again", 0, std::int64_t{-1}, {kDumpedLine, kReschedulingLine}, 0, kNoon, 0, 0, true},
};

std::int64_t secondOfDay(double seconds_since_1970) {
  const double days = std::floor(seconds_since_1970 / kDay);
  return std::isfinite(days) ? static_cast<std::int64_t>(std::floor(seconds_since_1970 - days * kDay)) : 0;
}

TEST(ControllerTest, AStartDecidesByPlanAndDay) {
  for (const Start& start : kStarts) {
    SCOPED_TRACE(start.what);
    const bool snapshot = start.lines.empty() || start.lines.back() != kReschedulingLine;
    Host host;
    host.clock.seconds_since_1970 = start.clock;
    host.clock.seconds_per_reading = start.seconds_per_reading;
    host.clock.fails = start.clock_fails;
    host.random.next = start.random;
    host.local_calendar.seconds_east_of_utc = 7200;
    if (start.late_seconds) host.plan(start.clock - *start.late_seconds);
    if (start.dumped_day) host.preferences_store.values.emplace(kDumpedKey, *start.dumped_day);
    const auto plan = host.storedPlan();
    Lines lines = start.lines;
    lines.insert(lines.begin(), kNoJobLine);
    EXPECT_EQ(host.run(), lines);

    const double ended = host.clock.seconds_since_1970;
    const double marked = std::get<Date>(host.preference(kLastKey).value()).secondsSince1970();
    EXPECT_TRUE(marked >= start.clock && marked <= ended) << marked;
    const PreferenceValue today = start.clock_fails ? -1 : static_cast<std::int64_t>(ended / kDay);
    EXPECT_EQ(host.preference(kDumpedKey), snapshot ? today : start.dumped_day);
    EXPECT_EQ(host.storedPlan(), snapshot ? start.next_plan : plan);
    const JobDescription& job = host.waketide.jobs.at(kJob);
    EXPECT_EQ(job.window_start_time,
              host.storedPlan().value_or(kReferenceDateSecondsSince1970) - kReferenceDateSecondsSince1970);
    EXPECT_EQ(job.window_end_time, job.window_start_time + 604800);

    decltype(host.metric_store.written) times;
    if (plan) times.emplace_back("com.zorvik.snapshot.plannedSecsSinceMidnight", secondOfDay(*plan + 7200));
    times.emplace_back("com.zorvik.snapshot.nextSecsSinceMidnight", secondOfDay(start.next_plan + 7200));
    const auto& written = host.metric_store.written;
    ASSERT_EQ(!written.empty(), snapshot);
    EXPECT_TRUE(!snapshot || std::equal(times.begin(), times.end(), written.begin() + 1));
  }
}

TEST(ControllerTest, EventsAreOnlyLogged) {
  const std::pair<JobEvent, Lines> rows[] = {
      {{.expired = false, .job_status = 1}, {"Waketide job was in error."}},
      {{.expired = true, .job_status = 2}, {"Waketide job expired!"}},
      {{.expired = true, .job_status = 3}, {"Waketide job expired!", "Waketide job was unsatisfied"}},
      {{.expired = false, .job_status = 7}, {"Waketide event fired with unknown job status: 7"}},
      {{.expired = false, .job_status = 0xFFFF'FFFF}, {"Waketide event fired with unknown job status: -1"}},
      {{.expired = false, .job_status = 0x1'0000'0002}, {}},
  };
  Host host;
  const Services services = host.services();
  const ScopedServices scoped(services);
  std::weak_ptr<voLornController> controller = voLornController::init();
  ASSERT_FALSE(controller.expired()) << "the agent's handler keeps the controller";
  EXPECT_EQ(host.waketide.queue, &host.work_queues.mainQueue());
  host.calls.clear();
  for (const auto& [event, lines] : rows) {
    host.system_log.lines.clear();
    host.waketide.handler(kJob, event);
    EXPECT_EQ(host.system_log.lines, lines);
  }
  EXPECT_TRUE(host.calls.empty());
  host.waketide.handler = nullptr;
  EXPECT_TRUE(controller.expired());
}

}  // namespace
}  // namespace volorn
