#pragma once

#include <cstdint>
#include <optional>

#include "platform/linux/kernel/parse_schedule.h"

namespace volorn::linux_host {

// A live thread of a task.
struct TaskThread {
  std::int32_t id = 0;
  char state = 0;  // as in `stat`
  bool schedule_is_read = false;
  std::int32_t processor = 0;
  std::uint64_t start_ticks = 0;
  std::uint64_t user_ticks = 0;
  std::uint64_t system_ticks = 0;
  std::optional<ThreadSchedule> schedule = std::nullopt;
};

}  // namespace volorn::linux_host
