#include "waketide/mend.h"

#include <sys/timex.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <optional>
#include <variant>

#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_system_log.h"
#include "platform/linux/state/state_file.h"
#include "platform/linux/state/state_reader.h"
#include "platform/names.h"
#include "waketide/schedule.h"

namespace volorn::waketide {
namespace {

constexpr double kDaySeconds = 86400.0;
constexpr double kPatienceSeconds = 2.0 * kDaySeconds;

// What adjtimex(2) returns, or its errno below 0.
int kernelClockState() {
  timex query = {};
  const int state = adjtimex(&query);
  return state < 0 ? -errno : state;
}

// That the daemon would wait for, or register again.
std::optional<Date> planIn(linux_host::StateReader state) {
  const auto stored = state.preference(kDomain, kNextPlannedWakeupTimeKey);
  if (const Date* plan = stored ? std::get_if<Date>(&*stored) : nullptr) return *plan;
  const auto job = state.job(kJobName);
  if (!job) return std::nullopt;
  return Date::fromSecondsSinceReferenceDate(job->window_start_time);
}

// Opening the state file for writing does it, as it would for the daemon.
void takeBackWhatWasCutOff(const std::string& state_directory, SystemLog& log) {
  linux_host::StateDirectory directory(state_directory);
  linux_host::LinuxClock clock;
  linux_host::StateFile file(directory, clock, log, linux_host::OnDamage::kLose);
  file.read([](linux_host::Database&) {});
}

// What is wrong with the file the daemon tells.
std::optional<Date> storedPlan(const std::string& state_directory, SystemLog& log) {
  using linux_host::StateReader;
  using linux_host::StateUnreadable;
  try {
    return planIn(StateReader(state_directory));
  } catch (const StateUnreadable& error) {
    if (error.reason() != StateUnreadable::Reason::kCutOff) return std::nullopt;
  }
  takeBackWhatWasCutOff(state_directory, log);
  return planIn(StateReader(state_directory));
}

// Of any number at once, the first does it.
void clearPlan(const std::string& state_directory, Date plan, SystemLog& log) {
  linux_host::StateDirectory directory(state_directory);
  linux_host::LinuxClock clock;
  linux_host::StateFile file(directory, clock, log, linux_host::OnDamage::kLose);
  file.write([&](linux_host::Database& database) {
    if (!isTooFarAhead(plan, clock.now())) return;  // set right while this waited for the lock
    const double date = plan.secondsSinceReferenceDate();
    auto preference = database.prepare("DELETE FROM preference WHERE domain = ? AND key = ? AND value = ?");
    preference.bind(1, kDomain).bind(2, kNextPlannedWakeupTimeKey).bind(3, date).run();
    const int preferences = database.changes();
    database.prepare("DELETE FROM job WHERE name = ? AND window_start = ?")
        .bind(1, kJobName)
        .bind(2, date)
        .run();
    if (preferences + database.changes() > 0) log.write("clearing it, so that the daemon plans anew");
  });
  file.commit();
}

}  // namespace

bool isToBeCleared(Date plan, Date now, const ClockTrust& trust) {
  return isTooFarAhead(plan, now) && (trust.synchronised || trust.uptime_seconds >= kPatienceSeconds);
}

void mend(const std::string& state_directory) {
  linux_host::LinuxSystemLog log("waketide");
  try {
    const auto plan = storedPlan(state_directory, log);
    if (!plan) return;
    // In this order: what is said of the clock must not be taken for one that was wrong, and was set right
    // since.
    const int clock_state = kernelClockState();
    const ClockTrust trust{.synchronised = clock_state >= 0 && clock_state != TIME_ERROR,
                           .uptime_seconds = linux_host::LinuxUptime().UptimeSeconds()};
    const Date now = linux_host::LinuxClock().now();
    if (!isTooFarAhead(*plan, now)) return;
    log.log("the stored plan lies %.1f days ahead, so the clock was wrong when it was made, or is so now",
            plan->secondsSince(now) / kDaySeconds);
    if (clock_state < 0) log.log("the kernel does not tell of its clock: %s", std::strerror(-clock_state));
    if (isToBeCleared(*plan, now, trust)) {
      clearPlan(state_directory, *plan, log);
    } else {
      log.write("it stays until the clock is synchronised or the machine has been up for 48 hours");
    }
  } catch (const std::exception& error) {
    log.log("the stored plan cannot be looked at: %s", error.what());
  }
}

}  // namespace volorn::waketide
