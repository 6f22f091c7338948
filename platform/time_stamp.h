#pragma once

#include <cstdint>

namespace volorn {

// A moment or a length of time; a whole one has microseconds from 0 to 999,999.
struct TimeStamp {
  std::int64_t seconds;
  std::int32_t microseconds;

  friend constexpr bool operator==(const TimeStamp&, const TimeStamp&) = default;
};

}  // namespace volorn
