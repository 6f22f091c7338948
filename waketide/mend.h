#pragma once

#include <string>

#include "platform/date.h"

namespace volorn::waketide {

// What speaks for a clock.
struct ClockTrust {
  bool synchronised;      // so the kernel calls it
  double uptime_seconds;  // how long nobody has set it right, if it is wrong
};

// True for a plan that is too far ahead of a clock that can be trusted. A host without a clock that runs on
// begins in the past, and is to wait for its time first.
bool isToBeCleared(Date plan, Date now, const ClockTrust& trust);

// The step before the daemon, which itself would wait for a plan however far it is ahead: clears such a plan
// in the state file in `state_directory`, so that the daemon plans anew. Nothing is thrown, since no run is
// to fail for it: what it does and what goes wrong is told to the system log.
void mend(const std::string& state_directory);

}  // namespace volorn::waketide
