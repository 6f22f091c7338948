#pragma once

#include <cstdint>

namespace volorn::linux_host {

// When the system started, by the wall clock, in microseconds since 1 January 1970 UTC: what the two clocks
// are apart, which nothing changes but that the wall clock is set.
class BootTime {
 public:
  // The same answer until the wall clock is set by more than a tick of start times, so that such a time is
  // the same whenever it is told.
  std::int64_t microseconds();

 private:
  std::int64_t told_ = 0;
};

}  // namespace volorn::linux_host
