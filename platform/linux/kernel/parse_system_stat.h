#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/kernel_records.h"

namespace volorn::linux_host {

struct SystemStat {
  CpuTicks ticks = {};                 // interrupts count as system, waiting for devices as idle
  std::int64_t boot_time_seconds = 0;  // since 1 January 1970 UTC
};

// The text of /proc/stat:
//   cpu  80259 7441 16202 519244 1018 0 199 45 0 0
//   cpu0 37603 2848 7215 264237 178 0 21 20 0 0
//   intr 744258 0 0 0
//   btime 1795384488
// The columns are user, nice, system, idle, waiting, interrupts, soft interrupts. None unless both lines are
// there.
std::optional<SystemStat> parseSystemStat(std::string_view text);

}  // namespace volorn::linux_host
