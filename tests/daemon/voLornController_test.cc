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
constexpr const char* kJobLine = "WTD job already exists";
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
    preferences_store.values.insert_or_assign(kPlanKey, Date::fromSecondsSince1970(seconds_since_1970));
  }
  void dumpedOn(std::int64_t day) { preferences_store.values.insert_or_assign(kDumpedKey, day); }

  std::optional<PreferenceValue> preference(const char* key) const {
    const auto found = preferences_store.values.find(key);
    return found == preferences_store.values.end() ? std::nullopt : std::optional(found->second);
  }
  double storedPlan() const { return std::get<Date>(preference(kPlanKey).value()).secondsSince1970(); }

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

TEST(ControllerTest, FirstStartTakesTheSnapshotAndPlansTomorrow) {
  Host host;
  host.random.next = 0x8000'0000;
  EXPECT_EQ(host.run(), (Lines{kNoJobLine, kNoPlanLine}));
  EXPECT_EQ(host.storedPlan(), 20001 * kDay + 43200);
  EXPECT_EQ(host.preference(kDumpedKey), PreferenceValue{std::int64_t{20000}});
  EXPECT_EQ(host.preference(kLastKey), PreferenceValue{Date::fromSecondsSince1970(kNoon)});
  ASSERT_FALSE(host.metric_store.written.empty());
  EXPECT_EQ(host.metric_store.written[1].first, "com.zorvik.snapshot.nextSecsSinceMidnight");
  EXPECT_EQ(host.metric_store.written[1].second, 43200);
}

// Distance from the plan in seconds, and what the start is taken for.
struct Classification {
  double late_seconds;
  Lines lines;
  bool snapshot;
};

TEST(ControllerTest, ThirtySecondsEitherSideAreOnTime) {
  const Classification rows[] = {
      {0.0, {}, true},
      {30.0, {}, true},
      {30.001, {kLateLine}, true},
      {-30.0, {}, true},
      {-30.001, {kEarlyLine, kTooEarlyLine, kReschedulingLine}, false},
      {86400.0 * 400, {kLateLine}, true},
      {std::nan(""), {}, true},
  };
  for (const auto& [late_seconds, lines, snapshot] : rows) {
    SCOPED_TRACE(late_seconds);
    Host host;
    const double plan = kNoon - late_seconds;
    host.plan(plan);
    Lines expected{kNoJobLine};
    expected.insert(expected.end(), lines.begin(), lines.end());
    EXPECT_EQ(host.run(), expected);
    EXPECT_EQ(!host.metric_store.written.empty(), snapshot);
    EXPECT_EQ(host.preference(kDumpedKey).has_value(), snapshot);
    EXPECT_EQ(host.storedPlan() == plan, !snapshot);
    EXPECT_EQ(host.preference(kLastKey), PreferenceValue{Date::fromSecondsSince1970(kNoon)});
    if (snapshot) {
      EXPECT_EQ(host.metric_store.written[1].first, "com.zorvik.snapshot.plannedSecsSinceMidnight");
    }
  }
}

TEST(ControllerTest, OneSnapshotADay) {
  Host host;
  host.plan(kNoon + 31);
  host.dumpedOn(20000);
  EXPECT_EQ(host.run(), (Lines{kNoJobLine, kEarlyLine, kTooEarlyLine, kDumpedLine, kReschedulingLine}));
  host.plan(kNoon);
  EXPECT_EQ(host.run(), (Lines{kJobLine, kDumpedLine, kReschedulingLine}));
  EXPECT_EQ(host.storedPlan(), kNoon);
  EXPECT_EQ(host.waketide.jobs.at(kJob).window_start_time, kNoon - kReferenceDateSecondsSince1970);
  EXPECT_TRUE(host.metric_store.written.empty());
}

TEST(ControllerTest, DayOfTheLastSnapshot) {
  struct Row {
    const char* what;
    PreferenceValue stored;
    bool today;
  };
  const Row rows[] = {
      {"yesterday", std::int64_t{19999}, false},
      {"tomorrow, after the clock went back", std::int64_t{20001}, false},
      {"low 32 bits", std::int64_t{0x5'0000'0000 + 20000}, true},
      {"no integer", Date::fromSecondsSinceReferenceDate(20000), false},
  };
  for (const auto& [what, stored, today] : rows) {
    SCOPED_TRACE(what);
    Host host;
    host.preferences_store.values.insert_or_assign(kDumpedKey, stored);
    host.run();
    EXPECT_EQ(host.metric_store.written.empty(), today);
  }
}

TEST(ControllerTest, PlansWrapAt32Bits) {
  struct Row {
    std::int32_t today;
    std::uint32_t random;
    double seconds_since_1970;
  };
  const Row rows[] = {
      {20000, 0, 1728086400},
      {20000, 4294967295, 1728086400 + 86399},
      {24854, 578975511, 2147483647},  // offset 11647, the last second before the wrap
      {24854, 579025221, -2147483648.0},
      {24855, 0, 24856 * kDay - 4294967296.0},
  };
  for (const auto& [today, random, seconds_since_1970] : rows) {
    SCOPED_TRACE(today);
    Host host;
    host.clock.seconds_since_1970 = today * kDay + 5;
    host.random.next = random;
    host.run();
    EXPECT_EQ(host.storedPlan(), seconds_since_1970);
    const JobDescription& job = host.waketide.jobs.at(kJob);
    EXPECT_EQ(job.window_start_time, seconds_since_1970 - kReferenceDateSecondsSince1970);
    EXPECT_EQ(job.window_end_time, job.window_start_time + 604800);
  }
}

TEST(ControllerTest, ARunAcrossMidnightPlansFromItsStartAndStoresTheNewDay) {
  Host host;
  host.clock.seconds_since_1970 = 20001 * kDay - 2;
  host.clock.seconds_per_reading = 1;
  host.run();
  EXPECT_EQ(host.storedPlan(), 20001 * kDay);
  EXPECT_EQ(host.preference(kDumpedKey), PreferenceValue{std::int64_t{20001}});
}

TEST(ControllerTest, DaysTurnAtMidnightUtc) {
  Host host;
  host.local_calendar.seconds_east_of_utc = 7200;
  const Services services = host.services();
  const ScopedServices scoped(services);
  const std::pair<double, std::int32_t> rows[] = {
      {0, 0}, {86399, 0}, {86400, 1}, {20000 * kDay + 0.5, 20000}};
  for (const auto& [seconds, day] : rows) {
    host.clock.seconds_since_1970 = seconds;
    EXPECT_EQ(voLornController::_daysSince1970(), day);
  }
  host.clock.fails = true;
  EXPECT_EQ(voLornController::_daysSince1970(), -1);
}

TEST(ControllerTest, SnapshotRunAsksInOrder) {
  Host host;
  host.plan(kNoon);
  host.run();
  const fake::CallJournal before = {"time",
                                    "copyValue nextPlannedWakeupTime",
                                    "createSerialQueue com.zorvik.volorn.requestQueue",
                                    "WaketideInit com.zorvik.volorn",
                                    "WaketideCopyJob com.zorvik.volorn.logcreation",
                                    "now",
                                    "now",
                                    "setValue lastWakeupTime",
                                    "getIntegerValue lastLogDumpedDaySince1970",
                                    "arc4random",
                                    "WaketideAddJob com.zorvik.volorn.logcreation",
                                    "setValue nextPlannedWakeupTime"};
  const fake::CallJournal after = {"setScalarValue com.zorvik.snapshot.jetsamLevel", "time",
                                   "setValue lastLogDumpedDaySince1970", "synchronise com.zorvik.volorn"};
  ASSERT_GT(host.calls.size(), before.size() + after.size());
  EXPECT_TRUE(std::equal(before.begin(), before.end(), host.calls.begin()))
      << testing::PrintToString(host.calls);
  EXPECT_TRUE(std::equal(after.rbegin(), after.rend(), host.calls.rbegin()))
      << testing::PrintToString(host.calls);
}

TEST(ControllerTest, RepeatedRunAsksInOrder) {
  Host host;
  host.dumpedOn(20000);
  host.run();
  EXPECT_EQ(host.calls,
            (fake::CallJournal{
                "time", "copyValue nextPlannedWakeupTime", "createSerialQueue com.zorvik.volorn.requestQueue",
                "WaketideInit com.zorvik.volorn", "WaketideCopyJob com.zorvik.volorn.logcreation", "now",
                "setValue lastWakeupTime", "getIntegerValue lastLogDumpedDaySince1970", "time",
                "getIntegerValue lastLogDumpedDaySince1970", "time", "copyValue nextPlannedWakeupTime",
                "WaketideAddJob com.zorvik.volorn.logcreation", "synchronise com.zorvik.volorn"}));
  const JobDescription& job = host.waketide.jobs.at(kJob);
  EXPECT_EQ(job.window_start_time, 0.0);
  EXPECT_EQ(job.window_end_time, 604800.0);
}

TEST(ControllerTest, ARunGoesOnWithoutItsServices) {
  Host host;
  host.preferences_store.loses_writes = true;
  host.waketide.loses_jobs = true;
  host.clock.fails = true;
  EXPECT_EQ(host.run(), (Lines{kNoJobLine, kNoPlanLine}));
  EXPECT_FALSE(host.metric_store.written.empty());

  // A clock that fails still counts as a day, -1, which is stored and compared like any other.
  host.preferences_store.loses_writes = false;
  host.run();
  EXPECT_EQ(host.preference(kDumpedKey), PreferenceValue{std::int64_t{-1}});
  EXPECT_EQ(host.run().back(), kReschedulingLine);
}

TEST(ControllerTest, EventsAreOnlyLogged) {
  struct Row {
    JobEvent event;
    Lines lines;
  };
  const Row rows[] = {
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

TEST(ControllerTest, PlansAreSharedUntilTheyDiffer) {
  Host host;
  host.plan(kNoon);
  const Services services = host.services();
  const ScopedServices scoped(services);
  const auto controller = voLornController::init();
  EXPECT_EQ(controller->expectedWakeupTime(), controller->plannedNextWakeupTime());
  EXPECT_EQ(controller->lastWakeupTime(), 0.0);
  controller->_handleRequest(nullptr);
  EXPECT_EQ(controller->expectedWakeupTime()->secondsSince1970(), kNoon);
  EXPECT_EQ(controller->plannedNextWakeupTime()->secondsSince1970(), 20001 * kDay);
  host.waketide.handler = nullptr;
}

}  // namespace
}  // namespace volorn
