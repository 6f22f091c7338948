#include "daemon/voLornController.h"

#include <new>
#include <string_view>
#include <utility>
#include <variant>

#include "platform/names.h"
#include "platform/services.h"
#include "snapshot/voLornLog.h"

namespace volorn {
namespace {

constexpr std::string_view kRequestQueueLabel = "com.zorvik.volorn.requestQueue";

constexpr double kToleranceSeconds = 30.0;
constexpr double kJobWindowSeconds = 604800.0;
constexpr std::int32_t kSecondsPerDay = 86400;

DateRef storedPlan() {
  const auto value = Current().preferences_store.copyValue(kDomain, kNextPlannedWakeupTimeKey);
  const Date* date = value ? std::get_if<Date>(&*value) : nullptr;
  return date ? std::make_shared<const Date>(*date) : nullptr;
}

// The second of the day after `today` that the random number picks, counted from 1970 in 32 bits that wrap:
// from 18 January 2038 on the plans lie in 1901.
std::int32_t secondOfNextDay(std::int32_t today, std::uint32_t random) {
  constexpr double kTwoToMinus32 = 2.3283064365386963e-10;
  const auto offset = static_cast<std::int32_t>(static_cast<double>(random) * kTwoToMinus32 * kSecondsPerDay);
  constexpr std::uint32_t kDay = kSecondsPerDay;
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(today) * kDay +
                                   static_cast<std::uint32_t>(offset) + kDay);
}

}  // namespace

std::shared_ptr<voLornController> voLornController::init() {
  std::shared_ptr<voLornController> controller(new (std::nothrow) voLornController);
  if (!controller) return nullptr;
  controller->_todayDaysSince1970 = _daysSince1970();
  controller->_lastWakeupTime = 0.0;
  controller->_expectedWakeupTime = storedPlan();
  controller->_plannedNextWakeupTime = controller->_expectedWakeupTime;
  controller->_requestQueue = Current().work_queues.createSerialQueue(kRequestQueueLabel);
  controller->_setupWaketideHandler();
  return controller;
}

void voLornController::_setupWaketideHandler() {
  const Services& services = Current();
  services.waketide.WaketideInit(kDomain, services.work_queues.mainQueue(),
                                 [self = shared_from_this()](std::string_view, const JobEvent& event) {
                                   self->_handleWaketideEvent(event);
                                 });
  const bool exists = services.waketide.WaketideCopyJob(kJobName).has_value();
  services.system_log.write(exists ? "WTD job already exists" : "WTD job doesn't exist");
  _wtdJobExists = exists;
}

void voLornController::_handleWaketideEvent(const JobEvent& event) {
  SystemLog& log = Current().system_log;
  if (event.expired) log.write("Waketide job expired!");
  switch (const auto status = static_cast<std::int32_t>(event.job_status)) {
    case 1:
      log.write("Waketide job was in error.");
      break;
    case 2:
      break;
    case 3:
      log.write("Waketide job was unsatisfied");
      break;
    default:
      log.log("Waketide event fired with unknown job status: %d", status);
  }
}

void voLornController::_handleRequest(const std::shared_ptr<void>& /*request*/) {
  handleTrigger();
}

void voLornController::handleTrigger() {
  const Services& services = Current();
  const WakeupStatus status = _getWakeupStatus();
  _markLastWakeupTime();
  if (status == WakeupStatusTooEarly) {
    services.system_log.write("wakeupstatus was wakeupstatus too early");
  } else if (!_alreadyDumpedToday()) {
    _rescheduleNextTrigger();
    const std::unique_ptr<voLornLog> log = voLornLog::init();
    if (log) {
      log->writeKeysWithStatusAndPlannedWakeupTimeAndNextPlannedWakeupTime(status, expectedWakeupTime(),
                                                                           plannedNextWakeupTime());
    }
    // The day of this moment: a run that crosses midnight has taken the new day's snapshot.
    services.preferences_store.setValue(kDomain, kLastLogDumpedDayKey, std::int64_t{_daysSince1970()});
    services.preferences_store.synchronise(kDomain);
    return;
  }
  if (_alreadyDumpedToday()) services.system_log.write("already dumped today!!");
  services.system_log.write("rescheduling current trigger and not dumping the log");
  _rescheduleCurrentTrigger();
  services.preferences_store.synchronise(kDomain);
}

WakeupStatus voLornController::_getWakeupStatus() const {
  SystemLog& log = Current().system_log;
  if (!_expectedWakeupTime) {
    log.write("No wakeupTime set in preferences - either first time, or first after an erase install");
    return WakeupStatusNoPlannedTime;
  }
  // A distance that is no number is on time.
  const double late_seconds = Current().clock.now().secondsSince(*_expectedWakeupTime);
  if (late_seconds < -kToleranceSeconds) {
    // The line tells the tolerance, not the distance.
    log.log("Woke up before %f seconds from due time, so not resetting planned wake up time",
            kToleranceSeconds);
    return WakeupStatusTooEarly;
  }
  if (late_seconds > kToleranceSeconds) {
    log.write("Woke up too late, will mark that we were likely asleep at the time and exit");
    return WakeupStatusTooLate;
  }
  return WakeupStatusOnTime;
}

void voLornController::_markLastWakeupTime() {
  const Services& services = Current();
  services.preferences_store.setValue(kDomain, kLastWakeupTimeKey, services.clock.now());
}

bool voLornController::_alreadyDumpedToday() const {
  const auto day = Current().preferences_store.getIntegerValue(kDomain, kLastLogDumpedDayKey);
  return day.valid && static_cast<std::int32_t>(day.value) == _daysSince1970();
}

std::int32_t voLornController::_daysSince1970() {
  const std::int64_t seconds = Current().clock.time();
  return static_cast<std::int32_t>(seconds < 0 ? seconds : seconds / kSecondsPerDay);
}

JobDescription voLornController::_createWaketideJobWithNextWakeupTime(DateRef next) {
  _plannedNextWakeupTime = std::move(next);
  const double start = _plannedNextWakeupTime ? _plannedNextWakeupTime->secondsSinceReferenceDate() : 0.0;
  return {.window_start_time = start, .window_end_time = start + kJobWindowSeconds};
}

void voLornController::_rescheduleNextTrigger() {
  const Services& services = Current();
  const std::int32_t seconds = secondOfNextDay(_todayDaysSince1970, services.random.arc4random());
  const Date next = Date::fromSecondsSince1970(seconds);
  services.waketide.WaketideAddJob(kJobName,
                                   _createWaketideJobWithNextWakeupTime(std::make_shared<const Date>(next)));
  services.preferences_store.setValue(kDomain, kNextPlannedWakeupTimeKey, next);
}

void voLornController::_rescheduleCurrentTrigger() {
  Current().waketide.WaketideAddJob(kJobName, _createWaketideJobWithNextWakeupTime(storedPlan()));
}

}  // namespace volorn
