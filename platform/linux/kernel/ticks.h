#pragma once

#include <unistd.h>

#include <cstdint>

#include "platform/time_stamp.h"

namespace volorn::linux_host {

// A length of time that the kernel tells in clock ticks.
inline TimeStamp timeOfTicks(std::uint64_t ticks) {
  const auto per_second = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
  return {.seconds = static_cast<std::int64_t>(ticks / per_second),
          .microseconds = static_cast<std::int32_t>(ticks % per_second * 1'000'000 / per_second)};
}

}  // namespace volorn::linux_host
