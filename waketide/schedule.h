#pragma once

#include <optional>

#include "platform/date.h"
#include "platform/waketide.h"

namespace volorn::waketide {

// The daemon's row in the job table; none when it is missing or cannot be read.
using Row = std::optional<JobDescription>;

// True for a plan that only a wrong clock can have made: the daemon plans for the next UTC day.
bool isTooFarAhead(Date plan, Date now);

// True for a window that is open, expired or too far ahead, and for no row: then only a run of the daemon
// sets things right.
bool isDue(const Row& row, Date now);

// The first UTC midnight after `date`.
Date nextUtcMidnight(Date date);

// Decides when the daemon is to be started: once for each opening of a window. A run that could not store,
// failed or crossed midnight leaves a due row behind; as long as that row stays, the next start is at UTC
// midnight, when a new day's snapshot falls due.
class Schedule {
 public:
  // The last run, where it left a due row.
  struct Served {
    Date started;
    Row row;  // as the run left it
  };

  Schedule() = default;
  explicit Schedule(const std::optional<Served>& served) : served_(served) {}

  // None: the daemon is to be started now. Else when. `row` and `now` are of this moment; the clock may have
  // been set either way since the last call.
  std::optional<Date> nextStart(const Row& row, Date now);

  // The same for who sleeps: when to look again unless something changes before, at most a day ahead.
  std::optional<Date> sleepUntil(const Row& row, Date now);

  // The daemon ran from `started` to `ended`, and `row` is what is there after it. A window that has opened
  // since `ended` is a new one.
  void recordRun(Date started, Date ended, const Row& row);

  // For a schedule that goes on in another process.
  const std::optional<Served>& served() const { return served_; }

 private:
  std::optional<Served> served_;
};

}  // namespace volorn::waketide
