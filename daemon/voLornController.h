#pragma once

#include <cstdint>
#include <memory>

#include "platform/date.h"
#include "platform/waketide.h"
#include "platform/wakeup_status.h"
#include "platform/work_queue.h"

namespace volorn {

// Decides what one start of the daemon means and keeps the books of the daily snapshot. Days are UTC days.
class voLornController : public std::enable_shared_from_this<voLornController> {
 public:
  // Takes the day and the stored plan and registers with the job agent, whose handler then holds the
  // controller too. Null when there is no memory for it.
  static std::shared_ptr<voLornController> init();

  // The whole work of a run.
  void handleTrigger();

  // The time that this wake-up was planned for; null when none is stored.
  DateRef expectedWakeupTime() const { return _expectedWakeupTime; }

  // The plan that this run leaves registered; null when there is none.
  DateRef plannedNextWakeupTime() const { return _plannedNextWakeupTime; }

  // A plain property; it has nothing to do with the stored preference of its name.
  double lastWakeupTime() const { return _lastWakeupTime; }
  void setLastWakeupTime(double seconds) { _lastWakeupTime = seconds; }

  // Tells the log what became of the job, and does nothing else.
  void _handleWaketideEvent(const JobEvent& event);

  // Does handleTrigger, whatever the request.
  void _handleRequest(const std::shared_ptr<void>& request);

  // Whole days since 1 January 1970 UTC; -1 when the clock cannot be read.
  static std::int32_t _daysSince1970();

 private:
  voLornController() = default;

  void _setupWaketideHandler();
  WakeupStatus _getWakeupStatus() const;
  void _markLastWakeupTime();
  bool _alreadyDumpedToday() const;
  void _rescheduleNextTrigger();
  void _rescheduleCurrentTrigger();

  // The job for a wake-up at `next`, which also becomes the plan that this run leaves. Null opens the window
  // at the reference date.
  JobDescription _createWaketideJobWithNextWakeupTime(DateRef next);

  // Released from the last to the first: the queue, then the plan, then the expected time.
  bool _wtdJobExists = false;
  double _lastWakeupTime = 0.0;
  DateRef _expectedWakeupTime;
  DateRef _plannedNextWakeupTime;
  std::shared_ptr<WorkQueue> _requestQueue;  // nothing ever runs on it
  std::int32_t _todayDaysSince1970 = 0;
};

}  // namespace volorn
