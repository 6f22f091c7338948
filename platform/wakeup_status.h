#pragma once

#include <cstdint>

namespace volorn {

// What a start means, held against the planned wake-up time.
enum WakeupStatus : std::int32_t {
  WakeupStatusOnTime = 0,         // within 30 seconds of the plan on either side, bounds included
  WakeupStatusNoPlannedTime = 1,  // no plan is stored
  WakeupStatusTooEarly = 2,       // more than 30 seconds before the plan
  WakeupStatusTooLate = 3,        // more than 30 seconds after it
};

}  // namespace volorn
